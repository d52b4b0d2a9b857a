// The log level a configuration file chooses for the default sink.
#include <ctype.h>

#include <string>
#include <vector>

#include "dct/inifile.h"
#include "dct/log.h"

namespace dct {

namespace {

const char kLogSection[] = "Log";
const char kLevelKey[] = "Level";
// A value of up to 4095 characters and its terminator.
const size_t kValueBufferSize = 4096;

}  // namespace

cr_status_t configure_log_level(const std::string& config_file) {
    std::vector<char> value(kValueBufferSize, '\0');
    if (InifileGetValueA(config_file.c_str(), kLogSection, kLevelKey, nullptr, value.data(),
                         kValueBufferSize) != CR_STATUS_OK ||
        value[0] == '\0') {
        return CR_STATUS_OK;  // not configured: the default stays
    }
    // Configuration values are read without regard to letter case.
    std::string name = value.data();
    for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    log_level level;
    if (!parse_log_level(name, &level)) {
        WarningA(CR_STATUS_FAILED,
                 "[%s] %s \"%s\" in %s is not error, warning, info or trace; ignored", kLogSection,
                 kLevelKey, value.data(), config_file.c_str());
        return CR_STATUS_FAILED;
    }
    set_default_log_level(level);
    return CR_STATUS_OK;
}

}  // namespace dct
