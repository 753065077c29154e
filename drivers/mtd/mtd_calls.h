// What the MTD driver asks of the kernel, as a record: a test gives it MTDs that fail when they are told to. Each
// call does what the system call of its name does and leaves its errno.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

struct mtd_calls {
    const char *sysfs;   // folder with a folder of attributes for each MTD: mtd0, mtd1
    const char *devices; // folder with the character device of each, under the same name

    int (*open)(const char *path, int flags);
    void (*close)(int fd);

    // Of an opened character device. false with errno: ENXIO when it is something else.
    bool (*device_number)(int fd, unsigned &major_out, unsigned &minor_out);

    int (*ioctl)(int fd, unsigned long request, void *argument);

    // Places are 64 bits wide in every build.
    ssize_t (*pread)(int fd, void *bytes_out, std::size_t length, std::uint64_t offset);
    ssize_t (*pwrite)(int fd, const void *bytes, std::size_t length, std::uint64_t offset);
};

// The kernel's own.
extern const mtd_calls mtd_kernel_calls;

// Owner of an opened character device.
class mtd_device
{
public:
    mtd_device() = default;
    mtd_device(const mtd_calls &calls, int fd) : calls_(&calls), fd_(fd) {}
    mtd_device(mtd_device &&other) noexcept : calls_(other.calls_), fd_(other.fd_) { other.fd_ = -1; }
    mtd_device &operator=(mtd_device &&other) noexcept
    {
        // The other one closes what was here.
        const int fd = fd_;
        const mtd_calls *const calls = calls_;
        fd_ = other.fd_;
        calls_ = other.calls_;
        other.fd_ = fd;
        other.calls_ = calls;
        return *this;
    }
    ~mtd_device()
    {
        if (fd_ >= 0)
            calls_->close(fd_);
    }

    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }

private:
    const mtd_calls *calls_ = nullptr;
    int fd_ = -1;
};
