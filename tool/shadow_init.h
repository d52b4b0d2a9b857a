// kavrel-shadow init: prints what init_shadow_root (offsite/shadow_actions.h)
// found and did, and the configuration the shadow will run with.
#ifndef TOOL_SHADOW_INIT_H_
#define TOOL_SHADOW_INIT_H_

#include <string>

#include "offsite/shadow_actions.h"

namespace kshadow {

// The report as text (label column as the other commands) or one JSON document
// ({"schema":1,"command":"init","init":{...}}), ended by a newline.
std::string init_text(const InitReport& report);
std::string init_json(const InitReport& report);

}  // namespace kshadow

#endif  // TOOL_SHADOW_INIT_H_
