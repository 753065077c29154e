// A client whose request makes the daemon do no work: it asks for the unlocking of what was never locked.
#pragma once

#include <cstdint>
#include <string>

class lock_client
{
public:
    // Of the daemon of a slot; REQUIRES: attached to the chassis.
    explicit lock_client(unsigned slot);

    // Throws std::runtime_error when it is not answered.
    void unlock() const;

private:
    std::int32_t handle_;
    std::uint32_t node_;
    std::string body_;
};
