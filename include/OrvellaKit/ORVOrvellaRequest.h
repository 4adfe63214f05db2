#pragma once

// ORVOrvellaRequest: the caller's description of one HTTP exchange handed to
// the network manager. Configurable until it is submitted; the network task
// works on a frozen copy, and every setter of a frozen copy throws
// ORVException "Mutated request after submitting to network manager". All
// copies share one identifier and compare equal.
//
// ORVOrvellaAccountRequest talks to the account server and normally needs
// an access token; ORVOrvellaSimpleRequest never does. Create requests with
// requestWithURLRequest() (they live in shared pointers), and requests of a
// class of your own with ORVOrvellaRequest::make<YourClass>(). A frozen copy
// is always of the class the request was made as, with no copy function to
// write: make() remembers the class and copy() uses its copy constructor.
//
//     class DownloadRequest : public ORVOrvellaAccountRequest {
//     public:
//         using ORVOrvellaAccountRequest::ORVOrvellaAccountRequest;
//         bool useBackgroundSession() const override { return true; }
//     };
//     auto request = ORVOrvellaRequest::make<DownloadRequest>(urlRequest);
//
// Fields a subclass adds are copied by its copy constructor, without the
// request's lock: set them before the request is submitted.

#include <OrvellaKit/ORVError.h>
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

class ORVOrvellaRequest : public std::enable_shared_from_this<ORVOrvellaRequest> {
protected:
    // Only make() can produce a key, so every request is made by it and its
    // class is known to copy(). A subclass takes the key in its constructors
    // (or inherits them) and passes it on.
    class Key {
        Key() = default;
        friend class ORVOrvellaRequest;
    };

public:
    // Called once, on the main thread, with the response body (nothing when
    // there is none), the HTTP response (nothing when there was none) and
    // the error (null for none). Account requests and simple requests both
    // receive the body as an ORVOrvellaData; a simple request's is always in
    // memory.
    using CompletionHandler =
        std::function<void(const std::shared_ptr<ORVOrvellaData> &data,
                           const std::optional<ORVHTTPURLResponse> &response, const ORVError &error)>;
    using Handler = std::function<void()>;

    // A new request of class T (a concrete subclass) around the URL request;
    // further arguments go to T's constructor after the key and the URL request.
    template <class T, class... Args>
    static std::shared_ptr<T> make(const ORVURLRequest &request, Args &&...args)
    {
        static_assert(std::is_base_of_v<ORVOrvellaRequest, T>, "T must be a subclass of ORVOrvellaRequest");
        auto made = std::make_shared<T>(Key(), request, std::forward<Args>(args)...);
        static_cast<ORVOrvellaRequest &>(*made)._copier = &frozenCopyAs<T>;
        return made;
    }

    ORVOrvellaRequest(Key, const ORVURLRequest &request);
    virtual ~ORVOrvellaRequest();
    ORVOrvellaRequest &operator=(const ORVOrvellaRequest &) = delete;

    const QUuid &identifier() const { return _identifier; }
    const ORVURLRequest &originalRequest() const { return _originalRequest; }

    CompletionHandler completionHandler() const;
    void setCompletionHandler(CompletionHandler handler);
    // Null: the exchange is not written to the command log.
    QString category() const;
    void setCategory(const QString &category);
    bool maskRequestLogging() const;
    void setMaskRequestLogging(bool mask);
    bool maskResponseLogging() const;
    void setMaskResponseLogging(bool mask);
    bool skipResponseLogging() const;
    void setSkipResponseLogging(bool skip);
    quint64 countOfBytesClientExpectsToReceive() const;
    void setCountOfBytesClientExpectsToReceive(quint64 count);
    quint64 countOfBytesClientExpectsToSend() const;
    void setCountOfBytesClientExpectsToSend(quint64 count);
    // In [0, 1]; -1.0 (the initial value) leaves the URL task's default.
    float priority() const;
    void setPriority(float priority);
    Handler shouldYieldHandler() const;
    void setShouldYieldHandler(Handler handler);
    Handler shouldResumeHandler() const;
    void setShouldResumeHandler(Handler handler);

    quint64 retryCount() const;
    // Works on frozen copies too: the network manager counts its retries.
    void incrementRetryCount();

    bool isImmutable() const;
    virtual bool canStartWithoutToken() const = 0;
    virtual bool useBackgroundSession() const { return false; }

    // A frozen copy of the request's own class, with the same identifier.
    std::shared_ptr<ORVOrvellaRequest> copy() const;

    // Same identifier.
    bool isEqual(const ORVOrvellaRequest &other) const { return _identifier == other._identifier; }
    size_t hash() const { return qHash(_identifier); }

    // "<ClassName 0x...> <identifier>"
    QString debugDescription() const;

protected:
    // The frozen copy: every field read under the source's lock, the same
    // identifier, and immutable. Subclasses copy their own fields after it.
    ORVOrvellaRequest(const ORVOrvellaRequest &source);
    // Throws when the request is frozen; call with the lock held.
    void checkMutable() const;
    // The most derived class's name.
    QString className() const;

    mutable std::mutex _queue; // guards every field below the identifier

private:
    template <class T>
    static std::shared_ptr<ORVOrvellaRequest> frozenCopyAs(const ORVOrvellaRequest &source)
    {
        return std::shared_ptr<ORVOrvellaRequest>(new T(static_cast<const T &>(source)));
    }

    // Set by make(): copies the request as the class it was made as.
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

class ORVOrvellaAccountRequest : public ORVOrvellaRequest {
public:
    static std::shared_ptr<ORVOrvellaAccountRequest> requestWithURLRequest(const ORVURLRequest &request);

    ORVOrvellaAccountRequest(Key key, const ORVURLRequest &request) : ORVOrvellaRequest(key, request) {}
    bool canStartWithoutToken() const override;
    void setCanStartWithoutToken(bool canStart);

protected:
    ORVOrvellaAccountRequest(const ORVOrvellaAccountRequest &source);

private:
    friend class ORVOrvellaRequest;
    bool _canStartWithoutToken = false;
};

class ORVOrvellaSimpleRequest : public ORVOrvellaRequest {
public:
    static std::shared_ptr<ORVOrvellaSimpleRequest> requestWithURLRequest(const ORVURLRequest &request);

    ORVOrvellaSimpleRequest(Key key, const ORVURLRequest &request) : ORVOrvellaRequest(key, request) {}
    bool canStartWithoutToken() const override { return true; }

protected:
    ORVOrvellaSimpleRequest(const ORVOrvellaSimpleRequest &source) = default;

private:
    friend class ORVOrvellaRequest;
};
