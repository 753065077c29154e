// BIOS images as the version readers meet them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

constexpr std::string_view bios_signature = ">>> KORVA SUP_TELMA_OR BIOS <<<";
constexpr std::string_view image_header_magic("\x27\x05\x19\x56", 4);

class bios_image
{
public:
    explicit bios_image(std::size_t length, char fill = '\xff') : content_(length, fill) {}

    bios_image &put(std::size_t offset, std::string_view text)
    {
        content_.replace(offset, text.size(), text);
        return *this;
    }
    const std::string &content() const { return content_; }

private:
    std::string content_;
};
