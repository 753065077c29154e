#pragma once

#include <stdexcept>

// A failure of an image tool, with a text for the person at the terminal.
class image_error : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};
