#include <OrvellaKitWidgets/ORVDataCollectionPendingItemsViewController.h>

#include "ui_ORVDataCollectionPendingItemsViewController.h"

#include <OrvellaKit/ORVLocalization.h>
#include <OrvellaKit/ORVLogging.h>

#include <QAction>
#include <QClipboard>
#include <QGuiApplication>
#include <QHeaderView>
#include <QHideEvent>
#include <QItemSelectionModel>
#include <QJsonObject>
#include <QLocale>
#include <QMenu>
#include <QRegularExpression>

#include <algorithm>

ORV_LOG_FILE(nullptr)

const QString ORVDataCollectionPendingItemsViewController::sentenceColumnIdentifier = QStringLiteral("sentence");
const QString ORVDataCollectionPendingItemsViewController::dateColumnIdentifier = QStringLiteral("date");

namespace {
QString withoutLineBreaks(QString text)
{
    static const QRegularExpression lineBreak(QStringLiteral("\r\n|[\n\r\v\f\u0085\u2028\u2029]"));
    return text.replace(lineBreak, QStringLiteral(" "));
}
} // namespace

// The table's rows are the controller's list; the model only reads it.
class ORVDataCollectionPendingItemsViewController::Model : public QAbstractTableModel {
public:
    explicit Model(ORVDataCollectionPendingItemsViewController *controller)
        : QAbstractTableModel(controller), _controller(controller)
    {
    }
    int rowCount(const QModelIndex &parent = {}) const override
    {
        return parent.isValid() ? 0 : static_cast<int>(_controller->_rows.size());
    }
    int columnCount(const QModelIndex &parent = {}) const override { return parent.isValid() ? 0 : 2; }
    QVariant data(const QModelIndex &index, int role) const override
    {
        if (!index.isValid() || (role != Qt::DisplayRole && role != Qt::ToolTipRole))
            return {};
        if (role == Qt::ToolTipRole && index.column() == 0)
            return _controller->_rows.value(index.row()).text.value_or(QString());
        return _controller->objectValue(identifier(index.column()), index.row());
    }
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override
    {
        if (orientation != Qt::Horizontal)
            return {};
        if (role == Qt::UserRole)
            return identifier(section);
        if (role == Qt::DisplayRole)
            return section == 0 ? ORVLocalizedString("Report") : ORVLocalizedString("Sending");
        return {};
    }
    static QString identifier(int column)
    {
        return column == 0 ? sentenceColumnIdentifier : dateColumnIdentifier;
    }
    void reset()
    {
        beginResetModel();
        endResetModel();
    }
    // The dates changed; the rows, and so the selection, stay.
    void datesChanged()
    {
        if (!_controller->_rows.isEmpty())
            Q_EMIT dataChanged(index(0, 1), index(rowCount() - 1, 1));
    }
    void removeRowAt(int row, const std::function<void()> &remove)
    {
        beginRemoveRows({}, row, row);
        remove();
        endRemoveRows();
    }

private:
    ORVDataCollectionPendingItemsViewController *_controller;
};

ORVDataCollectionPendingItemsViewController::ORVDataCollectionPendingItemsViewController(
    std::shared_ptr<ORVDataCollectionManager> manager, QWidget *parent)
    : QWidget(parent), _manager(manager ? std::move(manager) : ORVDataCollectionManager::sharedManager()),
      _ui(std::make_unique<Ui::ORVDataCollectionPendingItemsViewController>())
{
    _ui->setupUi(this);
    _model = new Model(this);
    _ui->_tableView->setModel(_model);
    _ui->_tableView->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
    _ui->_tableView->horizontalHeader()->setSectionResizeMode(1, QHeaderView::ResizeToContents);

    _copyAction = new QAction(ORVLocalizedString("Copy"), this);
    _copyAction->setShortcut(QKeySequence::Copy);
    _copyAction->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    _copyAction->setEnabled(false);
    addAction(_copyAction);
    connect(_copyAction, &QAction::triggered, this, &ORVDataCollectionPendingItemsViewController::copy);

    // The Delete key (and Backspace, as on a keyboard without one) deletes
    // the selected rows, like the button beside the table.
    auto *deleteAction = new QAction(this);
    deleteAction->setShortcuts({QKeySequence(Qt::Key_Delete), QKeySequence(Qt::Key_Backspace)});
    deleteAction->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    _ui->_tableView->addAction(deleteAction);
    connect(deleteAction, &QAction::triggered, this, &ORVDataCollectionPendingItemsViewController::deleteItems);

    connect(_ui->_deleteButton, &QPushButton::clicked, this, &ORVDataCollectionPendingItemsViewController::deleteItems);
    // "Submit All Now" without a right click.
    connect(_ui->_submitAllButton, &QPushButton::clicked, this,
            &ORVDataCollectionPendingItemsViewController::submitAllPendingItems);
    connect(_model, &QAbstractItemModel::modelReset, this, [this] { _ui->_submitAllButton->setEnabled(!_rows.isEmpty()); });
    connect(_model, &QAbstractItemModel::rowsRemoved, this, [this] { _ui->_submitAllButton->setEnabled(!_rows.isEmpty()); });
    connect(_ui->_tableView->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            &ORVDataCollectionPendingItemsViewController::tableViewSelectionDidChange);
    // A reset drops the selection without a selectionChanged signal.
    connect(_model, &QAbstractItemModel::modelReset, this,
            &ORVDataCollectionPendingItemsViewController::tableViewSelectionDidChange);
    connect(_ui->_tableView, &QWidget::customContextMenuRequested, this, [this](const QPoint &position) {
        const QModelIndex index = _ui->_tableView->indexAt(position);
        std::unique_ptr<QMenu> menu(contextMenuForClickedRow(index.isValid() ? index.row() : -1));
        if (!menu->isEmpty())
            menu->exec(_ui->_tableView->viewport()->mapToGlobal(position));
    });
    viewDidLoad();
}

ORVDataCollectionPendingItemsViewController::~ORVDataCollectionPendingItemsViewController()
{
    // A view destroyed while shown still gives submission back, and changes
    // an earlier disappearance could not write get a last try.
    if (_appeared)
        viewDidDisappear();
    else
        applyAndSubmit();
    // The table would still ask for cells while QWidget's destructor hides
    // it, after this object's rows are gone.
    _ui->_tableView->setModel(nullptr);
}

QTableView *ORVDataCollectionPendingItemsViewController::tableView() const
{
    return _ui->_tableView;
}

QPushButton *ORVDataCollectionPendingItemsViewController::deleteButton() const
{
    return _ui->_deleteButton;
}

QPushButton *ORVDataCollectionPendingItemsViewController::submitAllButton() const
{
    return _ui->_submitAllButton;
}

QLabel *ORVDataCollectionPendingItemsViewController::submitNowTextField() const
{
    return _ui->_submitNowTextField;
}

void ORVDataCollectionPendingItemsViewController::viewDidLoad()
{
    loadRows();
}

void ORVDataCollectionPendingItemsViewController::loadRows()
{
    _rows = _manager->pendingItems();
    // Changes that could not be written yet stay the user's: the reports
    // deleted stay out of the list, and after "Submit All Now" every report
    // listed is due.
    QList<QJsonObject> deleted;
    for (const ORVDataCollectionItem &item : std::as_const(_deletedItems))
        deleted.append(item.JSONDictionaryForStorage());
    for (qsizetype row = 0; row < _rows.size() && !deleted.isEmpty();) {
        if (const qsizetype at = deleted.indexOf(_rows.at(row).JSONDictionaryForStorage()); at >= 0) {
            deleted.removeAt(at);
            _rows.removeAt(row);
        } else {
            ++row;
        }
    }
    _shownItems = _rows;
    if (_shouldSubmitItems) {
        const QDateTime due = QDateTime::currentDateTimeUtc().addSecs(-1);
        for (ORVDataCollectionItem &item : _rows)
            item.scheduledSubmissionDate = due;
    }
    _ui->_submitNowTextField->setVisible(_shouldSubmitItems);
    _model->reset();
}

bool ORVDataCollectionPendingItemsViewController::applyChanges()
{
    if (!_didModifyItems)
        return true;
    // Only the user's changes go back to the queue, under its lock: reports
    // queued while the view was open (by this process or another) and
    // those it never showed stay as the file has them.
    const QDateTime due = QDateTime::currentDateTimeUtc().addSecs(-1);
    const ORVError error = _manager->updatePendingItems(
        _deletedItems, _shouldSubmitItems ? _shownItems : QList<ORVDataCollectionItem>(), due);
    if (error) {
        // Kept, not dropped: the next showing lists them as the user left
        // them, and the next disappearance tries again.
        ORVLogError("The changes to the pending usage reports could not be saved and are kept for another try: %@",
                    error.description());
        return false;
    }
    _deletedItems.clear();
    _didModifyItems = false;
    return true;
}

void ORVDataCollectionPendingItemsViewController::applyAndSubmit()
{
    if (!applyChanges())
        return;
    if (std::exchange(_shouldSubmitItems, false)) {
        // Without an address the reports stay queued, now due, for the
        // pass that follows once one is set.
        if (!_manager->submissionURL().isEmpty())
            _manager->submitPendingItemsWithCompletionHandler();
        _ui->_submitNowTextField->hide();
    }
}

void ORVDataCollectionPendingItemsViewController::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    if (!_appeared)
        viewWillAppear();
}

void ORVDataCollectionPendingItemsViewController::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    // Minimising hides the window's widgets too, with a hide event from the
    // window system: the view is still open then. Closing or hiding it,
    // minimised or not, comes from the application.
    if (_appeared && !event->spontaneous())
        viewDidDisappear();
}

void ORVDataCollectionPendingItemsViewController::viewWillAppear()
{
    _appeared = true;
    // Changes made while the view was not shown (in code, or kept from a
    // disappearance that could not write them) go first, and a "Submit All
    // Now" among them waits for the view to go, as submission waits; then
    // the list is read anew, since what the view showed before (or read
    // when it was made) may have been sent, deleted or joined by new
    // reports since.
    applyChanges();
    // A "Submit All Now" still to send covers what this showing lists: it
    // is applied to those rows when the view goes.
    if (_shouldSubmitItems)
        _didModifyItems = true;
    loadRows();
    _manager->beginSubmissionDisabled();
}

void ORVDataCollectionPendingItemsViewController::viewDidDisappear()
{
    _appeared = false;
    const bool saved = applyChanges();
    _manager->endSubmissionDisabled();
    if (saved)
        applyAndSubmit();
}

QString ORVDataCollectionPendingItemsViewController::formattedDate(const QDateTime &date) const
{
    // Short date and time, with "Today" and "Tomorrow" for the next days.
    const QLocale locale;
    const QDateTime local = date.toLocalTime();
    const qint64 days = QDate::currentDate().daysTo(local.date());
    QString day;
    if (days == 0)
        day = ORVLocalizedString("Today");
    else if (days == 1)
        day = ORVLocalizedString("Tomorrow");
    else
        day = locale.toString(local.date(), QLocale::ShortFormat);
    return day + QStringLiteral(", ") + locale.toString(local.time(), QLocale::ShortFormat);
}

QString ORVDataCollectionPendingItemsViewController::objectValue(const QString &columnIdentifier, int row) const
{
    if (row < 0 || row >= _rows.size())
        return {};
    const ORVDataCollectionItem &item = _rows.at(row);
    QString text;
    if (columnIdentifier == sentenceColumnIdentifier) {
        text = item.text.value_or(QString());
    } else {
        const std::optional<QDateTime> &date = item.scheduledSubmissionDate;
        text = date && *date > QDateTime::currentDateTimeUtc() ? formattedDate(*date) : ORVLocalizedString("Now");
    }
    return withoutLineBreaks(text);
}

QList<int> ORVDataCollectionPendingItemsViewController::selectedRows() const
{
    QList<int> rows;
    for (const QModelIndex &index : _ui->_tableView->selectionModel()->selectedRows())
        rows.append(index.row());
    std::sort(rows.begin(), rows.end());
    return rows;
}

void ORVDataCollectionPendingItemsViewController::tableViewSelectionDidChange()
{
    const bool selected = _ui->_tableView->selectionModel()->hasSelection();
    _ui->_deleteButton->setEnabled(selected);
    _copyAction->setEnabled(selected);
}

void ORVDataCollectionPendingItemsViewController::deleteItems()
{
    deleteItemsAtIndexes(selectedRows());
}

void ORVDataCollectionPendingItemsViewController::deleteItemsFromMenuItem()
{
    if (_clickedRow < 0)
        return;
    const QList<int> selection = selectedRows();
    deleteItemsAtIndexes(selection.contains(_clickedRow) ? selection : QList<int>{_clickedRow});
}

void ORVDataCollectionPendingItemsViewController::deleteItemsAtIndexes(QList<int> rows)
{
    std::sort(rows.begin(), rows.end());
    rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
    bool removed = false;
    // From the last, so the positions still to remove stay valid.
    for (auto it = rows.crbegin(); it != rows.crend(); ++it) {
        const int row = *it;
        if (row < 0 || row >= _rows.size())
            continue;
        _model->removeRowAt(row, [this, row] {
            _rows.removeAt(row);
            _deletedItems.append(_shownItems.takeAt(row));
        });
        removed = true;
    }
    if (removed)
        _didModifyItems = true;
    tableViewSelectionDidChange();
}

void ORVDataCollectionPendingItemsViewController::copy()
{
    QStringList texts;
    for (int row : selectedRows())
        texts << _rows.at(row).text.value_or(QString());
    if (texts.isEmpty())
        return;
    QClipboard *clipboard = QGuiApplication::clipboard();
    clipboard->clear();
    clipboard->setText(texts.join(QLatin1Char('\n')));
}

void ORVDataCollectionPendingItemsViewController::submitAllPendingItems()
{
    _shouldSubmitItems = true;
    const QDateTime due = QDateTime::currentDateTimeUtc().addSecs(-1);
    for (ORVDataCollectionItem &item : _rows)
        item.scheduledSubmissionDate = due;
    _model->datesChanged();
    _ui->_submitNowTextField->show();
    _didModifyItems = true;
}

QMenu *ORVDataCollectionPendingItemsViewController::contextMenuForClickedRow(int clickedRow)
{
    _clickedRow = clickedRow >= 0 && clickedRow < _rows.size() ? clickedRow : -1;
    auto *menu = new QMenu(_ui->_tableView);
    if (!_rows.isEmpty())
        connect(menu->addAction(ORVLocalizedString("Submit All Now")), &QAction::triggered, this,
                &ORVDataCollectionPendingItemsViewController::submitAllPendingItems);
    if (_clickedRow >= 0)
        connect(menu->addAction(ORVLocalizedString("Delete")), &QAction::triggered, this,
                &ORVDataCollectionPendingItemsViewController::deleteItemsFromMenuItem);
    return menu;
}
