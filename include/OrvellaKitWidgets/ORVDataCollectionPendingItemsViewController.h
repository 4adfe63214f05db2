#pragma once

/// \file
/// ORVDataCollectionPendingItemsViewController: a table of the usage reports
/// waiting in an ORVDataCollectionManager's queue, with two columns: the
/// report's text ("sentence") and when it will be sent ("date", or "Now" for
/// a report that is due). The user can copy the selected reports' texts,
/// delete reports, or ask for all of them to be sent now.
///
/// While the view is open the queue sends nothing (one
/// beginSubmissionDisabled() when it appears, one endSubmissionDisabled()
/// when it is hidden or closed, minimised or not; minimising alone keeps
/// it open). The user's changes are applied when it disappears, and only
/// they: the deleted reports leave the queue and, after "Submit All Now",
/// the reports the view showed become due and go out; reports queued while
/// it was open stay as they are (one locked read-modify-write of the
/// queue). Each time it appears it lists the queue anew. Changes that
/// cannot be written (the queue's lock held elsewhere past its wait, a
/// full disk) are logged and kept: the next showing lists them as the user
/// left them and the next disappearance writes them. A change made in code
/// while the view is not shown is written when it next appears or is
/// destroyed.

#include <OrvellaKit/ORVDataCollectionManager.h>
#include <OrvellaKitWidgets/ORVWidgetsExport.h>

#include <QAbstractTableModel>
#include <QAction>
#include <QLabel>
#include <QList>
#include <QMenu>
#include <QPushButton>
#include <QTableView>
#include <QWidget>

#include <memory>

namespace Ui {
class ORVDataCollectionPendingItemsViewController;
}

/// The view of the pending usage reports (see the file overview).
///
/// Threads: main thread only.
/// Ownership: a QWidget; its parent, if any, owns it. Shares the manager
/// (keeps it alive). The widgets and the action the accessors return belong
/// to the view.
class ORVELLAKIT_WIDGETS_EXPORT ORVDataCollectionPendingItemsViewController : public QWidget {
    Q_OBJECT
public:
    /// \name Column identifiers
    /// The column identifiers, also the model's header data under
    /// Qt::UserRole.
    /// \{
    static const QString sentenceColumnIdentifier; ///< "sentence"
    static const QString dateColumnIdentifier;     ///< "date"
    /// \}

    /// Loads the layout (ORVDataCollectionPendingItemsViewController.ui) and
    /// the queue's items; null manager: the shared one.
    explicit ORVDataCollectionPendingItemsViewController(std::shared_ptr<ORVDataCollectionManager> manager = {},
                                                         QWidget *parent = nullptr);
    /// Gives submission back when the view is still shown, and writes
    /// changes not written yet (then sends after "Submit All Now").
    ~ORVDataCollectionPendingItemsViewController() override;

    /// The reports the table shows, in row order (with the dates it shows).
    QList<ORVDataCollectionItem> rows() const { return _rows; }
    /// Whether there are changes (deletions, "Submit All Now") not yet
    /// written to the queue.
    bool didModifyItems() const { return _didModifyItems; }
    /// Whether "Submit All Now" was chosen and the reports are still to go.
    bool shouldSubmitItems() const { return _shouldSubmitItems; }
    /// The table of reports.
    QTableView *tableView() const;
    /// The Delete button, enabled while rows are selected.
    QPushButton *deleteButton() const;
    /// "Submit All Now" beside Delete, enabled while there are rows.
    QPushButton *submitAllButton() const;
    /// The note that the reports go out when the view closes, shown after
    /// "Submit All Now".
    QLabel *submitNowTextField() const;
    /// Copy (the standard shortcut), enabled while rows are selected; see
    /// copy().
    QAction *copyAction() const { return _copyAction; }

    /// The table cell's text: the report's text, or its date (the formatter's
    /// text for a future date, "Now" otherwise), every line break a space.
    QString objectValue(const QString &columnIdentifier, int row) const;

    /// The table's context menu for a right-click on `clickedRow` (-1: none):
    /// "Submit All Now" when there are rows, "Delete" when a row was clicked.
    /// The caller owns the menu (a child of the table view until deleted).
    QMenu *contextMenuForClickedRow(int clickedRow);
    /// The row of the last context menu; -1 when it was not on a row.
    int clickedRow() const { return _clickedRow; }

public Q_SLOTS:
    /// Deletes the selected rows.
    void deleteItems();
    /// Deletes the selection when the clicked row is part of it, else only
    /// the clicked row; nothing without one.
    void deleteItemsFromMenuItem();
    /// Removes the rows (ascending or not) from the list and the table.
    void deleteItemsAtIndexes(QList<int> rows);
    /// Puts the selected reports' texts, in row order and joined by line
    /// feeds, on the clipboard as one text.
    void copy();
    /// Makes every report due (one second ago), shows "Now" everywhere and
    /// the note that they go out when the view closes.
    void submitAllPendingItems();

protected:
    /// The first showing since the view was hidden writes earlier changes,
    /// lists the queue anew and holds back submission.
    void showEvent(QShowEvent *event) override;
    /// Hiding or closing (not minimising) writes the changes, gives
    /// submission back and sends after "Submit All Now".
    void hideEvent(QHideEvent *event) override;

private:
    class Model;
    void viewDidLoad();
    void loadRows();
    /// Writes the user's changes to the queue; false (changes kept) when the
    /// queue could not be written.
    bool applyChanges();
    /// Writes the changes, then sends after "Submit All Now".
    void applyAndSubmit();
    void viewWillAppear();
    void viewDidDisappear();
    void tableViewSelectionDidChange();
    QList<int> selectedRows() const;
    QString formattedDate(const QDateTime &date) const;

    QList<ORVDataCollectionItem> _rows;
    bool _didModifyItems = false;
    bool _shouldSubmitItems = false;

    std::shared_ptr<ORVDataCollectionManager> _manager;
    std::unique_ptr<Ui::ORVDataCollectionPendingItemsViewController> _ui;
    Model *_model = nullptr;
    QAction *_copyAction = nullptr;
    int _clickedRow = -1;
    bool _appeared = false;
    /// The rows as read from the queue (dates unchanged by "Submit All
    /// Now"), in _rows' order, and those the user deleted: how the queue
    /// finds them when the changes go back.
    QList<ORVDataCollectionItem> _shownItems;
    QList<ORVDataCollectionItem> _deletedItems;
};
