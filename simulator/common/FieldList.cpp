#include "FieldList.h"

#include <cstdio>
#include <iomanip>
#include <sstream>
#include <stdexcept>

namespace vel::sim {

namespace {

[[noreturn]] void refuse(const std::string& what) {
    throw std::invalid_argument("not understood: " + what);
}

[[noreturn]] void refuse(const std::string& name, const std::string& value) {
    refuse(name + "=" + value);
}

// The value of a field: up to the next white space, or between quotes.
std::string readValue(std::istringstream& line) {
    std::string value;
    if (line.peek() == '"') {
        line >> std::quoted(value);
    } else if (!std::isspace(line.peek())) {
        line >> value;
    }
    return value;
}

}  // namespace

FieldList::FieldList(const std::string& text) {
    std::istringstream line(text);
    for (std::string name; line >> std::ws && !line.eof(); name.clear()) {
        while (!line.eof() && line.peek() != '=' && !std::isspace(line.peek()) && line.peek() != EOF)
            name += static_cast<char>(line.get());
        if (line.peek() == '=') {
            line.get();
            mFields[name] = readValue(line);
        } else {
            mWords.push_back(name);
        }
        if (name.empty()) refuse(text);
    }
}

const std::string& FieldList::word(size_t index) const {
    static const std::string none;
    return index < mWords.size() ? mWords[index] : none;
}

std::string FieldList::text(const std::string& name, const std::string& fallback) {
    mAsked.insert(name);
    const auto found = mFields.find(name);
    return found == mFields.end() ? fallback : found->second;
}

int FieldList::number(const std::string& name, int fallback, int least, int most) {
    const std::string value = text(name);
    if (value.empty()) return fallback;
    int number = 0;
    char rest = 0;
    const bool isNumber = std::sscanf(value.c_str(), "%d%c", &number, &rest) == 1;
    if (!isNumber || number < least || number > most) refuse(name, value);
    return number;
}

bool FieldList::pair(const std::string& name, int& first, int& second) {
    const std::string value = text(name);
    if (value.empty()) return false;
    int numbers[2] = {};
    char rest = 0;
    if (std::sscanf(value.c_str(), "%dx%d%c", &numbers[0], &numbers[1], &rest) != 2) refuse(name, value);
    first = numbers[0];
    second = numbers[1];
    return true;
}

void FieldList::rejectOthers(size_t words) const {
    if (mWords.size() > words) refuse(mWords[words]);
    for (const auto& [name, value] : mFields) {
        if (mAsked.count(name) == 0) refuse(name, value);
    }
}

std::string FieldList::verbOf(const std::string& line) {
    std::string verb;
    std::istringstream(line) >> verb;
    return verb;
}

std::string FieldList::quoted(const std::string& text) {
    std::ostringstream out;
    out << std::quoted(text);
    return out.str();
}

}  // namespace vel::sim
