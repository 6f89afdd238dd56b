// A request line and its words.
#include <map>
#include <string>

#include "harness.h"
#include "protocol/socket_connection.h"

// The words as a reader of the protocol's description would find them, one byte after the other.
static std::map<int, std::string> words_by_hand(const std::string &line)
{
    enum { BETWEEN, BARE, QUOTED } place = BETWEEN;
    std::map<int, std::string> words;
    int count = 0;
    for (char c : line) {
        const bool ends = place == QUOTED ? c == '"' : c == ' ';
        if (ends) {
            place = BETWEEN;
        } else if (place != BETWEEN) {
            words[count - 1] += c;
        } else {
            place = c == '"' ? QUOTED : BARE;
            words[count++] = c == '"' ? "" : std::string(1, c);
        }
    }
    return words;
}

// A line that asks for these very words: a word with a quote in it began without one.
static std::string line_of(const std::map<int, std::string> &words)
{
    std::string line;
    for (const auto &[number, word] : words) {
        const bool is_bare = word.find('"') != std::string::npos;
        line += is_bare ? word + " " : "\"" + word + "\"";
    }
    return line;
}

void examine(Input &input)
{
    const std::string line = input.Rest();
    std::map<int, std::string> words;
    const int count = split_request(line, words);
    PROMISE(count == static_cast<int>(words.size()));
    PROMISE(words == words_by_hand(line));
    std::map<int, std::string> again;
    PROMISE(split_request(line_of(words), again) == count);
    PROMISE(again == words);
}
