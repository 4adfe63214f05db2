#pragma once

/// \file
/// ORVOrvellaRequest: the caller's description of one HTTP exchange handed to
/// the network manager. Configurable until it is submitted; the network task
/// works on a frozen copy, and every setter of a frozen copy throws
/// ORVException "Mutated request after submitting to network manager". All
/// copies share one identifier and compare equal.
///
/// ORVOrvellaAccountRequest talks to the account server and normally needs
/// an access token; ORVOrvellaSimpleRequest never does. Create requests with
/// requestWithURLRequest() (they live in shared pointers), and requests of a
/// class of your own with ORVOrvellaRequest::make<YourClass>(). A frozen copy
/// is always of the class the request was made as, with no copy function to
/// write: make() remembers the class and copy() uses its copy constructor.
///
/// \code
///     class DownloadRequest : public ORVOrvellaAccountRequest {
///     public:
///         using ORVOrvellaAccountRequest::ORVOrvellaAccountRequest;
///         bool useBackgroundSession() const override { return true; }
///     };
///     auto request = ORVOrvellaRequest::make<DownloadRequest>(urlRequest);
/// \endcode
///
/// Fields a subclass adds are copied by its copy constructor, without the
/// request's lock: set them before the request is submitted.

#include <OrvellaKit/ORVError.h>
#include <OrvellaKit/ORVExport.h>
#include <OrvellaKit/ORVURLRequest.h>

#include <QString>
#include <QUuid>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>

class ORVOrvellaData;

/// The base of every request the network manager runs.
///
/// Thread rule: any thread; every field is read and written under the
/// request's own lock. The handlers it holds run on the threads their
/// descriptions name.
/// Ownership: requests live in shared pointers made by make(). A request
/// keeps its handlers (and every frozen copy shares them) until it is
/// destroyed; the network task of a submitted request holds its frozen copy.
class ORVELLAKIT_EXPORT ORVOrvellaRequest : public std::enable_shared_from_this<ORVOrvellaRequest> {
protected:
    /// Only make() can produce a key, so every request is made by it and its
    /// class is known to copy(). A subclass takes the key in its constructors
    /// (or inherits them) and passes it on.
    class Key {
        Key() = default;
        friend class ORVOrvellaRequest;
    };

public:
    /// Called once, on the main thread, with the response body (nothing when
    /// there is none), the HTTP response (nothing when there was none) and
    /// the error (null for none). Account requests and simple requests both
    /// receive the body as an ORVOrvellaData; a simple request's is always in
    /// memory.
    using CompletionHandler =
        std::function<void(const std::shared_ptr<ORVOrvellaData> &data,
                           const std::optional<ORVHTTPURLResponse> &response, const ORVError &error)>;
    /// A should-yield or should-resume handler.
    using Handler = std::function<void()>;

    /// A new request of class T (a concrete subclass) around the URL request;
    /// further arguments go to T's constructor after the key and the URL request.
    template <class T, class... Args>
    static std::shared_ptr<T> make(const ORVURLRequest &request, Args &&...args)
    {
        static_assert(std::is_base_of_v<ORVOrvellaRequest, T>, "T must be a subclass of ORVOrvellaRequest");
        auto made = std::make_shared<T>(Key(), request, std::forward<Args>(args)...);
        static_cast<ORVOrvellaRequest &>(*made)._copier = &frozenCopyAs<T>;
        return made;
    }

    /// A mutable request around `request` with a new identifier. Only make()
    /// has the key to call it.
    ORVOrvellaRequest(Key, const ORVURLRequest &request);
    virtual ~ORVOrvellaRequest();
    ORVOrvellaRequest &operator=(const ORVOrvellaRequest &) = delete;

    /// Made with the request, shared by all its copies.
    const QUuid &identifier() const { return _identifier; }
    /// The URL request as the caller made it (the access token is added to
    /// a copy when it is sent).
    const ORVURLRequest &originalRequest() const { return _originalRequest; }

    /// The completion handler; none by default.
    CompletionHandler completionHandler() const;
    /// Sets the completion handler.
    void setCompletionHandler(CompletionHandler handler);
    /// The command log's name for the exchange.
    /// Null: the exchange is not written to the command log.
    QString category() const;
    /// Sets the category.
    void setCategory(const QString &category);
    /// Whether the command log masks the request's body; false by default.
    bool maskRequestLogging() const;
    /// Sets whether the command log masks the request's body.
    void setMaskRequestLogging(bool mask);
    /// Whether the command log gets a stand-in ("Masked Content", with the
    /// length for an exchange in memory) instead of the response body; false
    /// by default.
    bool maskResponseLogging() const;
    /// Sets whether the command log masks the response body.
    void setMaskResponseLogging(bool mask);
    /// Whether a finished exchange stays out of the command log (a request
    /// that could not be sent is still logged); false by default.
    bool skipResponseLogging() const;
    /// Sets whether a finished exchange stays out of the command log.
    void setSkipResponseLogging(bool skip);
    /// The size hint handed to the URL task; 0 (the default): none.
    quint64 countOfBytesClientExpectsToReceive() const;
    /// Sets the hint of bytes to receive.
    void setCountOfBytesClientExpectsToReceive(quint64 count);
    /// The size hint handed to the URL task; 0 (the default): none.
    quint64 countOfBytesClientExpectsToSend() const;
    /// Sets the hint of bytes to send.
    void setCountOfBytesClientExpectsToSend(quint64 count);
    /// The URL task's priority.
    /// In [0, 1]; -1.0 (the initial value) leaves the URL task's default.
    float priority() const;
    /// Sets the priority; a value outside [0, 1] leaves the URL task's default.
    void setPriority(float priority);
    /// Called, on the thread that starts it, before a background download
    /// is handed to the session; none by default.
    Handler shouldYieldHandler() const;
    /// Sets the should-yield handler.
    void setShouldYieldHandler(Handler handler);
    /// Called, on the main thread, when the background download of a task
    /// still active has finished; none by default.
    Handler shouldResumeHandler() const;
    /// Sets the should-resume handler.
    void setShouldResumeHandler(Handler handler);

    /// How often the network manager retried the request (after a 401).
    quint64 retryCount() const;
    /// Works on frozen copies too: the network manager counts its retries.
    void incrementRetryCount();

    /// True for a frozen copy.
    bool isImmutable() const;
    /// Whether the request may be sent without an access token.
    virtual bool canStartWithoutToken() const = 0;
    /// Whether the exchange runs on the background session, as a download;
    /// false here.
    virtual bool useBackgroundSession() const { return false; }

    /// A frozen copy of the request's own class, with the same identifier.
    std::shared_ptr<ORVOrvellaRequest> copy() const;

    /// Whether both are copies of one request.
    /// Same identifier.
    bool isEqual(const ORVOrvellaRequest &other) const { return _identifier == other._identifier; }
    /// The identifier's hash; equal requests hash alike.
    size_t hash() const { return qHash(_identifier); }

    /// `"<ClassName: 0x...> "` followed by the identifier.
    QString debugDescription() const;

protected:
    /// The frozen copy: every field read under the source's lock, the same
    /// identifier, and immutable. Subclasses copy their own fields after it.
    ORVOrvellaRequest(const ORVOrvellaRequest &source);
    /// Throws when the request is frozen; call with the lock held.
    void checkMutable() const;
    /// The most derived class's name.
    QString className() const;

    mutable std::mutex _queue; ///< guards every field below the identifier

private:
    template <class T>
    static std::shared_ptr<ORVOrvellaRequest> frozenCopyAs(const ORVOrvellaRequest &source)
    {
        return std::shared_ptr<ORVOrvellaRequest>(new T(static_cast<const T &>(source)));
    }

    /// Set by make(): copies the request as the class it was made as.
    std::shared_ptr<ORVOrvellaRequest> (*_copier)(const ORVOrvellaRequest &) = nullptr;
    QUuid _identifier;
    ORVURLRequest _originalRequest;
    CompletionHandler _completionHandler;
    QString _category;
    bool _maskRequestLogging = false;
    bool _maskResponseLogging = false;
    bool _skipResponseLogging = false;
    quint64 _countOfBytesClientExpectsToReceive = 0;
    quint64 _countOfBytesClientExpectsToSend = 0;
    float _priority = -1.0f;
    Handler _shouldYieldHandler;
    Handler _shouldResumeHandler;
    quint64 _retryCount = 0;
    bool _immutable = false;
};

/// A request to the account server, sent with the account's access token
/// unless setCanStartWithoutToken() says otherwise. Its completion handler
/// receives a finished download as a file-backed ORVOrvellaData and then
/// owns the file.
///
/// Thread rule and ownership: as ORVOrvellaRequest.
class ORVELLAKIT_EXPORT ORVOrvellaAccountRequest : public ORVOrvellaRequest {
public:
    /// A new mutable account request around `request`.
    static std::shared_ptr<ORVOrvellaAccountRequest> requestWithURLRequest(const ORVURLRequest &request);

    /// For make() and subclasses (see ORVOrvellaRequest::Key).
    ORVOrvellaAccountRequest(Key key, const ORVURLRequest &request) : ORVOrvellaRequest(key, request) {}
    /// False unless set.
    bool canStartWithoutToken() const override;
    /// Sets whether the request may be sent without an access token.
    void setCanStartWithoutToken(bool canStart);

protected:
    /// The frozen copy (see ORVOrvellaRequest's copy constructor).
    ORVOrvellaAccountRequest(const ORVOrvellaAccountRequest &source);

private:
    friend class ORVOrvellaRequest;
    bool _canStartWithoutToken = false;
};

/// A request sent without an access token. Its completion handler always
/// receives the body in memory.
///
/// Thread rule and ownership: as ORVOrvellaRequest.
class ORVELLAKIT_EXPORT ORVOrvellaSimpleRequest : public ORVOrvellaRequest {
public:
    /// A new mutable simple request around `request`.
    static std::shared_ptr<ORVOrvellaSimpleRequest> requestWithURLRequest(const ORVURLRequest &request);

    /// For make() and subclasses (see ORVOrvellaRequest::Key).
    ORVOrvellaSimpleRequest(Key key, const ORVURLRequest &request) : ORVOrvellaRequest(key, request) {}
    /// Always true.
    bool canStartWithoutToken() const override { return true; }

protected:
    /// The frozen copy (see ORVOrvellaRequest's copy constructor).
    ORVOrvellaSimpleRequest(const ORVOrvellaSimpleRequest &source) = default;

private:
    friend class ORVOrvellaRequest;
};
