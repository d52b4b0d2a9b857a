// Sleeping, replaceable so that tests run busy retries without waiting.
#ifndef DCT_SLEEP_H_
#define DCT_SLEEP_H_

#include <functional>

// Sleeps `seconds` seconds through the current sleep function.
void DctSleep(unsigned seconds);

namespace dct {
// Replaces the sleep used by DctSleep; an empty function restores the real one.
// Thread-safe; the function may be called from several threads at once.
void set_sleep_function(std::function<void(unsigned)> fn);
}  // namespace dct

#endif  // DCT_SLEEP_H_
