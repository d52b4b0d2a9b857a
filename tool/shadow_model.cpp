#include "tool/shadow_model.h"

namespace kshadow {

const char* const kUnknown = "unknown";
const char* const kOk = "ok";
const char* const kBad = "bad";
const char* const kMissing = "missing";
const char* const kDenied = "denied";
const char* const kNotReadable = "not readable (permission denied)";

Problem not_readable_problem(const std::string& path) { return Problem{path, kNotReadable, true}; }

}  // namespace kshadow
