#include "tool/shadow_model.h"

namespace kshadow {

const char* const kUnknown = "unknown";
const char* const kOk = "ok";
const char* const kBad = "bad";
const char* const kMissing = "missing";

}  // namespace kshadow
