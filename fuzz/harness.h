// What every fuzz target is made of: an input to take apart, promises to check, and silence.
//
// A target is one file with examine(). It may assume that nothing is left of the run before except
// what it keeps itself.
#ifndef QUARRYD_FUZZ_HARNESS_H
#define QUARRYD_FUZZ_HARNESS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Ends the run, with the words on stderr, when what the code has promised is not so.
#define PROMISE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition))                                                                          \
            break_promise(#condition, __FILE__, __LINE__);                                         \
    } while (false)

[[noreturn]] void break_promise(const char *condition, const char *file, int line);

// The fuzzer's bytes, taken from the front. Texts end at a NUL: names and attributes hold none, and
// a mutation of one text leaves its neighbours as they were.
class Input {
public:
    Input(const uint8_t *bytes, size_t size);

    bool IsEmpty() const
    {
        return rest_.empty();
    }
    unsigned Byte();                // 0 when there is nothing left
    uint64_t Number(unsigned size); // of so many bytes, the lowest first
    std::string Text();
    std::string Rest();

private:
    std::string_view rest_;
};

// Defined by the target.
void examine(Input &input);

// What the daemon has said on stderr in this run. It is never printed.
std::string said();

// A record's field as a listing may show it: one that cannot end its column or its row.
std::string in_one_column(std::string text);

// Whether all of text is a run of whole lines.
bool is_whole_lines(std::string_view text);

#endif
