#pragma once

/// \file
/// ORVOnboardingFeatureItem: one feature shown on an onboarding screen (a
/// description, a main image, an optional badge image and a background
/// colour), and the loader of a JSON list of them.
///
/// The list is a JSON array of objects:
/// \code
///   [{"text": "Plan your week", "image": "https://.../week.png",
///     "badgeImage": "https://.../new.png", "backgroundColor": "#FFEECCFF"}]
/// \endcode
/// An element becomes an item when it has both "text" and "image".
///
/// \code
///   ORVOnboardingFeatureItem::loadFeatureItemsAtURL(url, [](auto items, const ORVError &error) {
///       if (!items) return showError(error);
///       for (const auto &item : *items)
///           item->loadImagesIfNeededWithCompletionBlock([item] { show(item); });
///   });
/// \endcode

#include <OrvellaKit/ORVError.h>
#include <OrvellaKitWidgets/ORVWidgetsExport.h>

#include <QColor>
#include <QImage>
#include <QList>
#include <QString>
#include <QUrl>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

/// "com.orvella.orvellakit.onboardingfeatureitem.error"
extern ORVELLAKIT_WIDGETS_EXPORT const QString ORVOnboardingFeatureItemErrorDomain;
/// The codes of ORVOnboardingFeatureItemErrorDomain.
enum ORVOnboardingFeatureItemError : qint64 {
    ORVOnboardingFeatureItemErrorNoHTTPResponse = 1, ///< No HTTP response came.
    ORVOnboardingFeatureItemErrorNotJSON = 2,        ///< The body is not JSON.
    ORVOnboardingFeatureItemErrorNotAnArray = 3,     ///< The JSON is not an array.
};

/// Items are shared: make them with std::make_shared (image loading holds the
/// item until it ends).
///
/// Threads: any thread; the images and the loading state are read and
/// written under a lock. Image loading completes on the main thread, list
/// loading on the shared URL session's queue.
/// Ownership: completions are kept until they have run (once).
class ORVELLAKIT_WIDGETS_EXPORT ORVOnboardingFeatureItem
    : public std::enable_shared_from_this<ORVOnboardingFeatureItem> {
public:
    /// A list of items.
    using Items = QList<std::shared_ptr<ORVOnboardingFeatureItem>>;
    /// Items, or none and an error; an HTTP status outside 200-299 gives
    /// none and the transport's error, which is then a null ORVError.
    using LoadCompletion = std::function<void(const std::optional<Items> &items, const ORVError &error)>;

    /// An item whose images are loaded from the URLs (an empty badge URL:
    /// no badge).
    ORVOnboardingFeatureItem(QUrl imageURL, QUrl badgeImageURL, QString featureDescription, QColor backgroundColor);
    /// An item with its images at hand (a null badge image: no badge).
    ORVOnboardingFeatureItem(QImage image, QImage badgeImage, QString featureDescription, QColor backgroundColor);

    /// Where the main image is loaded from; empty for an item made with images.
    QUrl imageURL() const { return _imageURL; }
    /// Where the badge image is loaded from; empty when there is none.
    QUrl badgeImageURL() const { return _badgeImageURL; }
    /// The main image; null until loaded.
    QImage image() const;
    /// The badge image; null until loaded, or when there is none.
    QImage badgeImage() const;
    /// The feature's text.
    QString featureDescription() const { return _featureDescription; }
    /// The background colour; invalid when none was given.
    QColor backgroundColor() const { return _backgroundColor; }

    /// False while images load; true when there is an image URL but no image
    /// yet; otherwise false when there is a badge image, and true exactly
    /// when there is a badge image URL.
    bool needsImageLoading() const;
    /// When loading is needed: reads both images (each only when its URL is
    /// set) on a background queue, then stores them and calls `completion`
    /// on the main thread. Otherwise calls `completion` at once. A URL that
    /// cannot be read, or data that is no image, leaves that image null.
    void loadImagesIfNeededWithCompletionBlock(std::function<void()> completion);

    /// Fetches and reads the list through the shared URL session; the
    /// completion runs on that session's queue. Errors (domain
    /// ORVOnboardingFeatureItemErrorDomain): 1 no HTTP response (unless the
    /// transport gave an error, which is passed on), 2 the body is not JSON,
    /// 3 it is not an array. An empty URL fails "URL != nil".
    static void loadFeatureItemsAtURL(const QUrl &URL, LoadCompletion completion);
    /// The items of a list's body; the error as above (what the loader uses).
    static std::optional<Items> featureItemsWithData(const QByteArray &data, ORVError *error);

private:
    QUrl _imageURL;
    QUrl _badgeImageURL;
    bool isLoading = false;
    QImage _image;
    QImage _badgeImage;
    QString _featureDescription;
    QColor _backgroundColor;
    mutable std::mutex _lock;
};
