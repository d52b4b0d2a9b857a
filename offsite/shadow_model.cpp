#include "offsite/shadow_model.h"

#include "dct/fs.h"
#include "dct/log.h"

namespace kshadow {

const char* const kUnknown = "unknown";
const char* const kOk = "ok";
const char* const kBad = "bad";
const char* const kMissing = "missing";
const char* const kDenied = "denied";
const char* const kNotReadable = dct::not_readable_text;

std::string where_logged() { return "log records went to " + dct::log_destination(); }

Problem not_readable_problem(const std::string& path) { return Problem{path, kNotReadable, true}; }

}  // namespace kshadow
