// Times as people write them on a command line: seconds since the epoch,
// ISO 8601 dates and date-times, or a time relative to now.
#ifndef DCT_TIME_TEXT_H_
#define DCT_TIME_TEXT_H_

#include <stdint.h>

#include <string>

namespace dct {

// Reads a TIME: seconds since the epoch ("1700000000", "-5"), an ISO 8601
// date ("2026-11-25", midnight UTC) or date-time ("2026-11-25T08:30",
// "2026-11-25T08:30:15", with "T" or a blank, optionally followed by "Z" or
// an offset "+02:00" / "-0500"; without one it is UTC), or a time relative
// to `now`: a sign, a number and a unit s, m, h, d or w ("-7d", "+24h").
// False when the text is none of these.
bool parse_time(const std::string& text, int64_t now, int64_t* out);

}  // namespace dct

#endif  // DCT_TIME_TEXT_H_
