#include <OrvellaKitWidgets/ORVOnboardingFeatureItem.h>

#include <OrvellaKit/ORVColor.h>
#include <OrvellaKit/ORVDispatchMainQueue.h>
#include <OrvellaKit/ORVDispatchQueue.h>
#include <OrvellaKit/ORVException.h>
#include <OrvellaKit/ORVImage.h>
#include <OrvellaKit/ORVJSON.h>
#include <OrvellaKit/ORVLogging.h>
#include <OrvellaKit/ORVURLSession.h>

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

#include <condition_variable>

ORV_LOG_FILE("Onboarding Feature Item")

const QString ORVOnboardingFeatureItemErrorDomain = QStringLiteral("com.orvella.orvellakit.onboardingfeatureitem.error");

namespace {

constexpr const char kClassName[] = "ORVOnboardingFeatureItem";
// Images larger than this are not read: a feature image is a picture for a
// window, and a body of gigabytes must not exhaust the memory.
constexpr qint64 kMaximumImageBytes = 64 * 1024 * 1024;
constexpr double kImageTimeoutSeconds = 60.0;

ORVError itemError(qint64 code)
{
    return ORVError(ORVOnboardingFeatureItemErrorDomain, code);
}

// The bytes at a local or remote URL, read synchronously (the caller is on a
// background queue); empty when they cannot be read.
QByteArray dataWithContentsOfURL(const QUrl &url)
{
    if (url.isLocalFile() || url.scheme() == QLatin1String("qrc")) {
        QFile file(url.isLocalFile() ? url.toLocalFile() : QLatin1Char(':') + url.path());
        if (!file.open(QIODevice::ReadOnly) || file.size() > kMaximumImageBytes)
            return {};
        return file.readAll();
    }
    struct Wait {
        std::mutex lock;
        std::condition_variable done;
        bool finished = false;
        QByteArray data;
    };
    auto wait = std::make_shared<Wait>();
    ORVURLRequest request(url);
    request.setTimeoutInterval(kImageTimeoutSeconds);
    auto task = ORVURLSession::sharedSession()->dataTaskWithRequest(
        request, [wait](const QByteArray &data, const std::optional<ORVHTTPURLResponse> &response, const ORVError &error) {
            std::lock_guard guard(wait->lock);
            if (error.isNull() && response && response->statusCode() >= 200 && response->statusCode() < 300 &&
                data.size() <= kMaximumImageBytes)
                wait->data = data;
            wait->finished = true;
            wait->done.notify_all();
        });
    if (!task)
        return {};
    task->resume();
    std::unique_lock guard(wait->lock);
    // The task's own time-out ends it; the margin only guards against a
    // transport that never answers.
    wait->done.wait_for(guard, std::chrono::seconds(static_cast<int>(kImageTimeoutSeconds) + 5),
                        [&] { return wait->finished; });
    return wait->data;
}

QImage imageAtURL(const QUrl &url)
{
    if (url.isEmpty())
        return {};
    const QByteArray data = dataWithContentsOfURL(url);
    return data.isEmpty() ? QImage() : orv_imageWithData(data);
}

} // namespace

ORVOnboardingFeatureItem::ORVOnboardingFeatureItem(QUrl imageURL, QUrl badgeImageURL, QString featureDescription,
                                                   QColor backgroundColor)
    : _imageURL(std::move(imageURL)), _badgeImageURL(std::move(badgeImageURL)),
      _featureDescription(std::move(featureDescription)), _backgroundColor(std::move(backgroundColor))
{
    orvRegisterFileLogLevel();
}

ORVOnboardingFeatureItem::ORVOnboardingFeatureItem(QImage image, QImage badgeImage, QString featureDescription,
                                                   QColor backgroundColor)
    : _image(std::move(image)), _badgeImage(std::move(badgeImage)), _featureDescription(std::move(featureDescription)),
      _backgroundColor(std::move(backgroundColor))
{
    orvRegisterFileLogLevel();
}

QImage ORVOnboardingFeatureItem::image() const
{
    std::lock_guard guard(_lock);
    return _image;
}

QImage ORVOnboardingFeatureItem::badgeImage() const
{
    std::lock_guard guard(_lock);
    return _badgeImage;
}

bool ORVOnboardingFeatureItem::needsImageLoading() const
{
    std::lock_guard guard(_lock);
    if (isLoading)
        return false;
    if (_image.isNull() && !_imageURL.isEmpty())
        return true;
    if (!_badgeImage.isNull())
        return false;
    return !_badgeImageURL.isEmpty();
}

void ORVOnboardingFeatureItem::loadImagesIfNeededWithCompletionBlock(std::function<void()> completion)
{
    if (!needsImageLoading()) {
        if (completion)
            completion();
        return;
    }
    {
        std::lock_guard guard(_lock);
        isLoading = true;
    }
    auto self = shared_from_this();
    ORVDispatchQueue::globalQueue(ORVDispatchQueue::QualityOfService::Default)
        ->async([self, completion = std::move(completion)]() mutable {
            QImage image = imageAtURL(self->_imageURL);
            QImage badge = imageAtURL(self->_badgeImageURL);
            ORVDispatchMainQueueAsync([self, image = std::move(image), badge = std::move(badge),
                                       completion = std::move(completion)]() mutable {
                {
                    std::lock_guard guard(self->_lock);
                    self->_image = std::move(image);
                    self->_badgeImage = std::move(badge);
                    self->isLoading = false;
                }
                if (completion)
                    std::exchange(completion, nullptr)();
            });
        });
}

std::optional<ORVOnboardingFeatureItem::Items> ORVOnboardingFeatureItem::featureItemsWithData(const QByteArray &data,
                                                                                              ORVError *error)
{
    orvRegisterFileLogLevel();
    ORVError parseError;
    const std::optional<QJsonValue> json = orv_JSONObjectWithData(data, &parseError);
    if (!json) {
        ORVLogError("Error parsing onboarding features JSON file: %@", parseError);
        if (error)
            *error = itemError(ORVOnboardingFeatureItemErrorNotJSON);
        return std::nullopt;
    }
    if (!json->isArray()) {
        ORVLogError("Onboarding features file has unexpected file format");
        if (error)
            *error = itemError(ORVOnboardingFeatureItemErrorNotAnArray);
        return std::nullopt;
    }
    Items items;
    for (const QJsonValue &element : json->toArray()) {
        if (!element.isObject()) {
            ORVLogError("Unexpected object in onboarding features file found");
            continue;
        }
        const QJsonObject dictionary = element.toObject();
        const std::optional<QString> text = orv_stringForKey(dictionary, QStringLiteral("text"));
        const std::optional<QString> image = orv_stringForKey(dictionary, QStringLiteral("image"));
        const std::optional<QString> badge = orv_stringForKey(dictionary, QStringLiteral("badgeImage"));
        const std::optional<QString> colour = orv_stringForKey(dictionary, QStringLiteral("backgroundColor"));
        const QUrl imageURL = image ? QUrl(*image) : QUrl();
        if (!text || imageURL.isEmpty())
            continue;
        items.append(std::make_shared<ORVOnboardingFeatureItem>(imageURL, badge ? QUrl(*badge) : QUrl(), *text,
                                                                colour ? orv_colorWithHexColorString(*colour)
                                                                       : QColor()));
    }
    if (error)
        *error = ORVError();
    return items;
}

void ORVOnboardingFeatureItem::loadFeatureItemsAtURL(const QUrl &URL, LoadCompletion completion)
{
    orvRegisterFileLogLevel();
    if (!ORVMethodParameterAssert(!URL.isEmpty(), "URL != nil", "loadFeatureItemsAtURL:completionBlock:", kClassName,
                                  kClassName))
        return;
    auto finish = [completion = std::move(completion)](const std::optional<Items> &items, const ORVError &error) {
        if (completion)
            completion(items, error);
    };
    auto task = ORVURLSession::sharedSession()->dataTaskWithRequest(
        ORVURLRequest(URL),
        [finish](const QByteArray &data, const std::optional<ORVHTTPURLResponse> &response, const ORVError &error) {
            if (!response) {
                finish(std::nullopt, error.isNull() ? itemError(ORVOnboardingFeatureItemErrorNoHTTPResponse) : error);
                return;
            }
            if (response->statusCode() < 200 || response->statusCode() > 299) {
                finish(std::nullopt, error);
                return;
            }
            ORVError parseError;
            const std::optional<Items> items = featureItemsWithData(data, &parseError);
            finish(items, parseError);
        });
    if (!task) {
        finish(std::nullopt, itemError(ORVOnboardingFeatureItemErrorNoHTTPResponse));
        return;
    }
    task->resume();
}
