// Sizes as people read them.
#ifndef QUARRYD_INSPECT_SIZE_TEXT_H
#define QUARRYD_INSPECT_SIZE_TEXT_H

#include <string>

// Decimal units, three decimals, cut and never rounded: 1999999 gives "1.999MB". Below 1000 the
// bare number. All bits set (unknown) gives "18446.744PB".
std::string capacity_text(unsigned long long bytes);

// Binary units, three decimals: 1536 gives "1.500KB", 512 gives "512.000 bytes"; a terabyte and
// more stays in "GB". For whoever debugs; the listings use capacity_text().
std::string binary_size_text(unsigned long long bytes);

#endif
