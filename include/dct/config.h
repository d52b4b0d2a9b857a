// The process-wide configuration object.
#ifndef DCT_CONFIG_H_
#define DCT_CONFIG_H_

#include <mutex>
#include <string>

#include "dct/status.h"

class _crConfigClass {
public:
    _crConfigClass() = default;

    // Reads [Paths] DisableCatalogAutoFixJournal (boolean, default off) from
    // `file`. A missing file or key keeps the default; returns 0.
    cr_status_t Load(const std::string& file);

    bool GetDisableCatalogAutoFixJournal() const;
    void SetDisableCatalogAutoFixJournal(bool disable);

    // The process's configuration object, or null when the process has none.
    static _crConfigClass* Instance();
    // Installs `config` (not owned; null removes it). Thread-safe.
    static void SetInstance(_crConfigClass* config);

private:
    mutable std::mutex mutex_;
    bool disable_auto_fix_journal_ = false;
};

#endif  // DCT_CONFIG_H_
