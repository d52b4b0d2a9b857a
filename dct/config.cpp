#include "dct/config.h"

#include <atomic>

#include "dct/inifile.h"

namespace {
std::atomic<_crConfigClass*> g_instance{nullptr};
}

cr_status_t _crConfigClass::Load(const std::string& file) {
    bool disable = false;
    InifileGetBooleanA(file.c_str(), "Paths", "DisableCatalogAutoFixJournal", false, &disable);
    SetDisableCatalogAutoFixJournal(disable);
    return CR_STATUS_OK;
}

bool _crConfigClass::GetDisableCatalogAutoFixJournal() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return disable_auto_fix_journal_;
}

void _crConfigClass::SetDisableCatalogAutoFixJournal(bool disable) {
    std::lock_guard<std::mutex> guard(mutex_);
    disable_auto_fix_journal_ = disable;
}

_crConfigClass* _crConfigClass::Instance() { return g_instance.load(std::memory_order_acquire); }

void _crConfigClass::SetInstance(_crConfigClass* config) { g_instance.store(config, std::memory_order_release); }
