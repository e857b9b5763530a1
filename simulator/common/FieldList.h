#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace vel::sim {

/**
 * A command line of words: a verb, plain words, then fields as in size=640x480 or file="my clip.mp4".
 * Everything that cannot be understood is thrown as std::invalid_argument with one line.
 */
class FieldList {
  public:
    explicit FieldList(const std::string& line);

    /** One of the plain words, the verb first; empty when there are fewer. */
    const std::string& word(size_t index) const;

    /** A field's text, or the fallback when it is not given. */
    std::string text(const std::string& name, const std::string& fallback = "");
    /** A field's number within bounds. */
    int number(const std::string& name, int fallback, int least, int most);
    /** A field of two numbers, as in 640x480; false, and nothing written, when it is not given. */
    bool pair(const std::string& name, int& first, int& second);

    /** Throws when a field was given that nobody has asked for, or more than that many plain words. */
    void rejectOthers(size_t words) const;

    /** The first word of a line, whatever the rest holds. */
    static std::string verbOf(const std::string& line);

    /** A text as the value of a field, quoted. It must not hold a newline. */
    static std::string quoted(const std::string& text);

  private:
    std::vector<std::string> mWords;
    std::map<std::string, std::string> mFields;
    std::set<std::string> mAsked;
};

}  // namespace vel::sim
