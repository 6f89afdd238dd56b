// Cutting texts into pieces, the same way everywhere.
#ifndef QUARRYD_BASE_WORDS_H
#define QUARRYD_BASE_WORDS_H

#include <string>
#include <string_view>
#include <vector>

// Appends the pieces of text between separators to pieces; an empty piece between two separators
// is kept. An empty text has no pieces.
void cut_at(std::string_view text, char separator, std::vector<std::string> &pieces);

// The text up to the first separator (or all of it), taken off the front of rest together with the
// whole run of separators behind it.
std::string_view take_field(std::string_view &rest, char separator);

// Drops every leading separator.
void skip_run(std::string_view &rest, char separator);

// Puts "_" in the place of each control character. What a drive or a medium says of itself is shown
// in rows and columns, which such a character would break.
void mask_controls(std::string &text);

// The same text with "_" in those places, for a line of the log.
std::string without_controls(std::string text);

// The name of a device as the registry knows it: without "/dev/" when the word begins with that.
std::string strip_dev(const std::string &word);

// A path as the kernel writes it into its tables of mounts and of swap areas: a blank, a tab, a
// line end and a backslash stand there as a backslash and three octal digits.
std::string as_in_kernel_table(const std::string &path);

// The way back: the path that stands in such a table as text. A backslash that begins no escape
// stands for itself.
std::string from_kernel_table(const std::string &text);

#endif
