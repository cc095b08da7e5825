// Text that is the same in every run.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <map>
#include <string>

namespace vesper::test {

// Every address in `text` replaced by #1, #2, ... in order of first appearance.
[[nodiscard]] inline std::string with_numbered_addresses(const std::string& text) {
    static const std::string prefix = "0x";
    std::map<std::string, std::string> numbers;
    std::string result;
    std::size_t done = 0;
    for (std::size_t start = text.find(prefix); start != std::string::npos;
         start = text.find(prefix, start + 1)) {
        if (start > 0 && std::isdigit(static_cast<unsigned char>(text[start - 1])) != 0) {
            continue;  // a size such as 400x240
        }
        const std::size_t end = std::min(
            text.find_first_not_of("0123456789abcdef", start + prefix.size()), text.size());
        const auto [known, added] =
            numbers.emplace(text.substr(start, end - start),
                            std::string(1, '#').append(std::to_string(numbers.size() + 1)));
        result.append(text, done, start - done).append(known->second);
        done = end;
    }
    return result.append(text, done);
}

}  // namespace vesper::test
