// Wall clock in milliseconds, replaceable for tests.
#ifndef DCT_CLOCK_H_
#define DCT_CLOCK_H_

#include <functional>

namespace dct {
// Milliseconds since the epoch: gettimeofday seconds * 1000 + microseconds / 1000,
// or the value of the installed clock function.
unsigned long now_ms();
// Replaces the clock; an empty function restores the real one. Thread-safe.
void set_clock_function(std::function<unsigned long()> fn);
}  // namespace dct

#endif  // DCT_CLOCK_H_
