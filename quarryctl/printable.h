// Text of unknown origin (labels, models) on its way to a terminal.
#ifndef QUARRYCTL_PRINTABLE_H
#define QUARRYCTL_PRINTABLE_H

#include <string>
#include <string_view>

// The text with everything replaced that a terminal could obey or a reader could not see: control
// characters and bytes that are no UTF-8 become "\x1b", characters that turn the writing direction
// round, separate lines or show nothing become "\u202e", and a backslash is doubled, so that what
// is shown stands for one text only.
std::string printable(std::string_view text);

// How many columns of a terminal the text takes. For text that printable() has made.
size_t display_width(std::string_view text);

// The longest beginning of the text that takes at most width columns; whole characters only. For
// text that printable() has made.
std::string_view fitting_part(std::string_view text, size_t width);

#endif
