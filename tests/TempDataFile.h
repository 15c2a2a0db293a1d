#ifndef VELKA_TESTS_TEMPDATAFILE_H
#define VELKA_TESTS_TEMPDATAFILE_H

// A file of pseudo-random bytes in the temporary directory, removed when the
// object goes. The bytes are kept for byte-exact comparison.

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

class TempDataFile {
public:
    explicit TempDataFile(size_t size, uint32_t seed = 1) : bytes_(size) {
        uint32_t x = seed * 2654435761u + 1;
        for (size_t i = 0; i < size; ++i) {
            x ^= x << 13;
            x ^= x >> 17;
            x ^= x << 5;
            bytes_[i] = static_cast<char>(x >> 24);
        }
        const char* dir = getenv("TMPDIR");
        std::string pattern = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") +
                              "/velka-test-XXXXXX";
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        int fd = mkstemp(name.data());
        if (fd == -1) {
            perror("mkstemp");
            abort();
        }
        path_ = name.data();
        size_t done = 0;
        while (done < size) {
            ssize_t n = write(fd, bytes_.data() + done, size - done);
            if (n <= 0) {
                perror("write");
                abort();
            }
            done += static_cast<size_t>(n);
        }
        close(fd);
    }
    ~TempDataFile() { unlink(path_.c_str()); }

    TempDataFile(const TempDataFile&) = delete;
    TempDataFile& operator=(const TempDataFile&) = delete;

    const std::string& path() const { return path_; }
    const std::vector<char>& bytes() const { return bytes_; }
    int64_t size() const { return static_cast<int64_t>(bytes_.size()); }
    // The URL under which the download engine stand-in serves this file.
    std::string dtaUrl() const { return "dta-test://" + path_; }

    // The `count` bytes at `offset`, clipped at the end.
    std::vector<char> slice(int64_t offset, size_t count) const {
        if (offset >= size()) return std::vector<char>();
        size_t end = std::min(bytes_.size(), static_cast<size_t>(offset) + count);
        return std::vector<char>(bytes_.begin() + static_cast<std::ptrdiff_t>(offset),
                                 bytes_.begin() + static_cast<std::ptrdiff_t>(end));
    }

private:
    std::vector<char> bytes_;
    std::string path_;
};

#endif  // VELKA_TESTS_TEMPDATAFILE_H
