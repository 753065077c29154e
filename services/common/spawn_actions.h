// What a process gets as its descriptors when it is started by posix_spawn.
#pragma once

#include <spawn.h>

class spawn_actions
{
public:
    spawn_actions() { result_ = ::posix_spawn_file_actions_init(&actions_); }
    spawn_actions(const spawn_actions &) = delete;
    spawn_actions &operator=(const spawn_actions &) = delete;
    ~spawn_actions() { (void)::posix_spawn_file_actions_destroy(&actions_); }

    // Gives the process a descriptor of this one, or an opened file, as its stream; or nothing at all.
    void connect(int fd, int stream)
    {
        if (result_ == 0)
            result_ = ::posix_spawn_file_actions_adddup2(&actions_, fd, stream);
    }
    void open(const char *path, int flags, int stream)
    {
        if (result_ == 0)
            result_ = ::posix_spawn_file_actions_addopen(&actions_, stream, path, flags, 0);
    }
    void close(int stream)
    {
        if (result_ == 0)
            result_ = ::posix_spawn_file_actions_addclose(&actions_, stream);
    }

    // 0, or the errno of the first action that could not be added.
    [[nodiscard]] int result() const { return result_; }
    const posix_spawn_file_actions_t *get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_{};
    int result_ = 0;
};
