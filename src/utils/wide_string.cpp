#include "utils/wide_string.h"
#include <cstdint>

namespace SONEL::UTILS {

std::string toUtf8(const std::wstring& wide) {
    std::string out;
    out.reserve(wide.size());
    for (wchar_t wc : wide) {
        auto c = static_cast<uint32_t>(wc);
        if (c > 0x10FFFF) c = 0xFFFD;  // not a code point: keep the length, mark it replaced
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::wstring fromUtf8(const std::string& utf8) {
    std::wstring out;
    out.reserve(utf8.size());
    for (size_t i = 0; i < utf8.size();) {
        const auto lead = static_cast<unsigned char>(utf8[i]);
        const int extra = lead < 0x80 ? 0 : lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : -1;
        if (extra < 0 || (extra > 0 && i + extra >= utf8.size())) {
            out += static_cast<wchar_t>(0xFFFD);  // stray continuation byte or cut sequence
            ++i;
            continue;
        }
        uint32_t c = extra == 0 ? lead : lead & (0x3F >> extra);
        for (int k = 1; k <= extra; ++k) c = (c << 6) | (static_cast<unsigned char>(utf8[i + k]) & 0x3F);
        out += static_cast<wchar_t>(c);
        i += extra + 1;
    }
    return out;
}

}  // namespace SONEL::UTILS
