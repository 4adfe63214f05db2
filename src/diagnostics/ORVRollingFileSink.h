#pragma once

// A spdlog sink that writes one file at a time and rolls on size and on age
// (spdlog's own sinks roll on one or the other), keeping a bounded number of
// files. It never throws: a directory or file that cannot be written makes
// it drop file output and try again a second later, and a file deleted or
// moved away while running is noticed within a second and replaced.

#include <spdlog/sinks/base_sink.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace orv::detail {

class RollingFileSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    RollingFileSink(std::filesystem::path directory, std::string baseName);
    ~RollingFileSink() override;

    const std::filesystem::path &directory() const { return _directory; }
    // Our log files in the directory, newest first.
    std::vector<std::filesystem::path> sortedLogFiles() const;
    std::filesystem::path currentFile();

    uint64_t maximumFileSize();
    void setMaximumFileSize(uint64_t bytes);
    std::chrono::seconds rollingFrequency();
    void setRollingFrequency(std::chrono::seconds frequency);
    uint32_t maximumNumberOfFiles();
    void setMaximumNumberOfFiles(uint32_t count);

protected:
    void sink_it_(const spdlog::details::log_msg &msg) override;
    void flush_() override;

private:
    struct Entry {
        std::filesystem::path path;
        std::string stamp;
        int sequence = 0;
    };
    std::vector<Entry> listFiles() const;
    bool reuseNewestFile();
    bool openNewFile();
    void deleteOldFiles();
    void closeFile();

    const std::filesystem::path _directory;
    const std::string _baseName;
    std::FILE *_file = nullptr;
    std::filesystem::path _path;
    uint64_t _size = 0;
    std::chrono::system_clock::time_point _created;
    std::chrono::system_clock::time_point _lastExistenceCheck;
    std::chrono::system_clock::time_point _retryAfter;
    std::chrono::system_clock::time_point _lastFlush;
    bool _triedReuse = false;
    uint64_t _maximumFileSize = 4194304;
    std::chrono::seconds _rollingFrequency{86400};
    uint32_t _maximumNumberOfFiles = 10;
};

} // namespace orv::detail
