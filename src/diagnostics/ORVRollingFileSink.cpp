#include "ORVRollingFileSink.h"

#include <spdlog/pattern_formatter.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include <unistd.h>

namespace orv::detail {

namespace {

constexpr auto kRetryDelay = std::chrono::seconds(1);
constexpr auto kExistenceCheckInterval = std::chrono::seconds(1);
constexpr auto kFlushInterval = std::chrono::seconds(1);
constexpr size_t kStampLength = 24; // "2024-03-01--12-00-00-123"

// UTC, so that the names sort in creation order whatever the time zone does.
std::string stampFor(std::chrono::system_clock::time_point time)
{
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[96]; // room for any int the compiler cannot rule out
    std::snprintf(text, sizeof text, "%04d-%02d-%02d--%02d-%02d-%02d-%03d", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<int>(ms % 1000));
    return text;
}

bool parseStamp(const std::string &stamp, std::chrono::system_clock::time_point &time)
{
    std::tm parts{};
    int milliseconds = 0;
    if (std::sscanf(stamp.c_str(), "%4d-%2d-%2d--%2d-%2d-%2d-%3d", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
                    &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &milliseconds) != 7)
        return false;
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    time = std::chrono::system_clock::from_time_t(timegm(&parts)) + std::chrono::milliseconds(milliseconds);
    return true;
}

// The framework's names of the levels, so that a line can be found by its
// level with grep: "[error]", "[warning]", "[info]", "[debug]", "[verbose]".
class LevelName final : public spdlog::custom_flag_formatter {
public:
    void format(const spdlog::details::log_msg &msg, const std::tm &, spdlog::memory_buf_t &dest) override
    {
        std::string_view name;
        switch (msg.level) {
        case spdlog::level::critical:
        case spdlog::level::err:
            name = "error";
            break;
        case spdlog::level::warn:
            name = "warning";
            break;
        case spdlog::level::info:
            name = "info";
            break;
        case spdlog::level::debug:
            name = "debug";
            break;
        default:
            name = "verbose";
            break;
        }
        dest.append(name.data(), name.data() + name.size());
    }
    std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<LevelName>(); }
};

} // namespace

RollingFileSink::RollingFileSink(std::filesystem::path directory, std::string baseName)
    : _directory(std::move(directory)), _baseName(std::move(baseName))
{
    // The time stamp of the platform's logging framework, then the level;
    // the message brings its category:
    // "2024/03/01 12:00:00:123  [error] [Token Manager] message".
    auto formatter = std::make_unique<spdlog::pattern_formatter>();
    formatter->add_flag<LevelName>('*').set_pattern("%Y/%m/%d %H:%M:%S:%e  [%*] %v");
    set_formatter_(std::move(formatter));
}

RollingFileSink::~RollingFileSink()
{
    closeFile();
}

std::vector<RollingFileSink::Entry> RollingFileSink::listFiles() const
{
    // "<base> <stamp>.log" or "<base> <stamp>-<n>.log"; other files in the
    // directory are not ours and are left alone.
    std::vector<Entry> entries;
    if (!_directory.is_absolute())
        return entries;
    std::error_code error;
    std::filesystem::directory_iterator it(_directory, error);
    if (error)
        return entries;
    const std::string prefix = _baseName + ' ';
    for (; it != std::filesystem::directory_iterator(); it.increment(error)) {
        if (error)
            break;
        const std::string name = it->path().filename().string();
        if (name.size() < prefix.size() + kStampLength + 4 || name.compare(0, prefix.size(), prefix) != 0 ||
            name.compare(name.size() - 4, 4, ".log") != 0)
            continue;
        const std::string rest = name.substr(prefix.size(), name.size() - prefix.size() - 4);
        Entry entry{it->path(), rest.substr(0, kStampLength), 0};
        std::chrono::system_clock::time_point ignored;
        if (!parseStamp(entry.stamp, ignored))
            continue;
        if (rest.size() > kStampLength) {
            if (rest[kStampLength] != '-')
                continue;
            try {
                entry.sequence = std::stoi(rest.substr(kStampLength + 1));
            } catch (...) {
                continue;
            }
        }
        entries.push_back(std::move(entry));
    }
    std::sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) {
        return a.stamp != b.stamp ? a.stamp > b.stamp : a.sequence > b.sequence;
    });
    return entries;
}

std::vector<std::filesystem::path> RollingFileSink::sortedLogFiles() const
{
    std::vector<std::filesystem::path> paths;
    for (auto &entry : listFiles())
        paths.push_back(std::move(entry.path));
    return paths;
}

std::filesystem::path RollingFileSink::currentFile()
{
    std::lock_guard lock(mutex_);
    return _path;
}

uint64_t RollingFileSink::maximumFileSize()
{
    std::lock_guard lock(mutex_);
    return _maximumFileSize;
}

void RollingFileSink::setMaximumFileSize(uint64_t bytes)
{
    std::lock_guard lock(mutex_);
    _maximumFileSize = bytes;
}

std::chrono::seconds RollingFileSink::rollingFrequency()
{
    std::lock_guard lock(mutex_);
    return _rollingFrequency;
}

void RollingFileSink::setRollingFrequency(std::chrono::seconds frequency)
{
    std::lock_guard lock(mutex_);
    _rollingFrequency = frequency;
}

uint32_t RollingFileSink::maximumNumberOfFiles()
{
    std::lock_guard lock(mutex_);
    return _maximumNumberOfFiles;
}

void RollingFileSink::setMaximumNumberOfFiles(uint32_t count)
{
    std::lock_guard lock(mutex_);
    _maximumNumberOfFiles = count;
}

void RollingFileSink::closeFile()
{
    if (_file) {
        std::fclose(_file);
        _file = nullptr;
    }
}

bool RollingFileSink::reuseNewestFile()
{
    // A relaunch appends to the newest file while it is young and small enough.
    const auto entries = listFiles();
    if (entries.empty())
        return false;
    const Entry &newest = entries.front();
    std::chrono::system_clock::time_point created;
    std::error_code error;
    const auto size = std::filesystem::file_size(newest.path, error);
    if (error || !parseStamp(newest.stamp, created) || size >= _maximumFileSize ||
        std::chrono::system_clock::now() - created >= _rollingFrequency)
        return false;
    std::FILE *file = std::fopen(newest.path.c_str(), "ab");
    if (!file)
        return false;
    _file = file;
    _path = newest.path;
    _size = size;
    _created = created;
    return true;
}

bool RollingFileSink::openNewFile()
{
    std::error_code error;
    std::filesystem::create_directories(_directory, error);
    const auto now = std::chrono::system_clock::now();
    const std::string stamp = stampFor(now);
    for (int sequence = 0; sequence < 1000; ++sequence) {
        std::string name = _baseName + ' ' + stamp;
        if (sequence > 0)
            name += '-' + std::to_string(sequence);
        name += ".log";
        const auto path = _directory / name;
        // "x": never append to a file that another writer created meanwhile.
        std::FILE *file = std::fopen(path.c_str(), "wbx");
        if (!file) {
            if (errno == EEXIST)
                continue;
            return false;
        }
        _file = file;
        _path = path;
        _size = 0;
        _created = now;
        deleteOldFiles();
        return true;
    }
    return false;
}

void RollingFileSink::deleteOldFiles()
{
    if (_maximumNumberOfFiles == 0)
        return;
    const auto entries = listFiles();
    for (size_t i = _maximumNumberOfFiles; i < entries.size(); ++i) {
        if (entries[i].path == _path)
            continue;
        std::error_code ignored;
        std::filesystem::remove(entries[i].path, ignored);
    }
}

void RollingFileSink::sink_it_(const spdlog::details::log_msg &msg)
{
    // Without a folder of its own the sink writes nothing: a relative path
    // would put log files in whatever the working folder is.
    if (!_directory.is_absolute())
        return;
    spdlog::memory_buf_t text;
    formatter_->format(msg, text);
    // The message's own time stamp saves two clock reads per message.
    const auto now = msg.time;

    if (_file && now - _lastExistenceCheck >= kExistenceCheckInterval) {
        _lastExistenceCheck = now;
        if (::access(_path.c_str(), F_OK) != 0)
            closeFile(); // deleted or moved away: start a new file
    }
    if (_file && ((_size > 0 && _size + text.size() > _maximumFileSize) ||
                  (_rollingFrequency.count() > 0 && now - _created >= _rollingFrequency)))
        closeFile();
    if (!_file) {
        if (now < _retryAfter)
            return;
        const bool opened = (!_triedReuse && reuseNewestFile()) || openNewFile();
        _triedReuse = true;
        if (!opened) {
            _retryAfter = now + kRetryDelay;
            return;
        }
        _lastExistenceCheck = now;
    }
    if (std::fwrite(text.data(), 1, text.size(), _file) != text.size()) {
        closeFile();
        _retryAfter = now + kRetryDelay;
        return;
    }
    _size += text.size();
    if (msg.level >= spdlog::level::warn || now - _lastFlush >= kFlushInterval) {
        std::fflush(_file);
        _lastFlush = now;
    }
}

void RollingFileSink::flush_()
{
    if (_file)
        std::fflush(_file);
    _lastFlush = std::chrono::system_clock::now();
}

} // namespace orv::detail
