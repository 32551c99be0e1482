#include "tavrin/misc/strings.hpp"

#include <cctype>
#include <stdexcept>

namespace zelvo::tavrin::misc {

std::string to_lower(std::string const& text) {
    std::string result(text);
    for (auto& c : result) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return result;
}

std::string to_upper(std::string const& text) {
    std::string result(text);
    for (auto& c : result) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return result;
}

std::string& trim(std::string& text, std::string const& chars) {
    if (text.empty()) {
        return text;
    }
    text.erase(0, text.find_first_not_of(chars));
    auto const last = text.find_last_not_of(chars);
    if (last == std::string::npos || last + 1 == text.size()) {
        return text;
    }
    text.erase(last + 1);
    return text;
}

std::string trim(std::string const& text, std::string const& chars) {
    std::string copy(text);
    return trim(copy, chars);
}

std::vector<std::string> split(std::string const& text, std::string const& delimiter) {
    if (delimiter.empty()) {
        throw std::invalid_argument("split: empty delimiter");
    }
    std::vector<std::string> fields;
    if (text.empty()) {
        return fields;
    }
    std::string::size_type start = 0;
    for (;;) {
        auto const found = text.find(delimiter, start);
        if (found == std::string::npos) {
            fields.push_back(text.substr(start));
            return fields;
        }
        fields.push_back(text.substr(start, found - start));
        start = found + delimiter.size();
    }
}

std::vector<std::string> chunk(std::string const& text, unsigned size) {
    auto const count = size == 0 ? 0 : text.size() / size;
    if (count * size != text.size()) {
        throw std::runtime_error("Chunk: Invalid string size");
    }
    std::vector<std::string> pieces;
    pieces.reserve(count);
    for (std::string::size_type i = 0; i < count; ++i) {
        pieces.push_back(text.substr(i * size, size));
    }
    return pieces;
}

std::int64_t get_timestamp(std::chrono::system_clock::time_point const& time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

}  // namespace zelvo::tavrin::misc
