#include "catalog_shadow/DirectoryLock.h"

DirectoryLock::~DirectoryLock() = default;

cr_status_t DirectoryLock::GetLockString(const std::string&, std::string*, unsigned int*) const {
    return CR_STATUS_OK;
}

cr_status_t DirectoryLock::Lock(const std::string&, unsigned int) { return CR_STATUS_OK; }

cr_status_t DirectoryLock::Unlock(const std::string&, unsigned int) { return CR_STATUS_OK; }

DirectoryLock::ScopedLock::ScopedLock(DirectoryLock* lock, const std::string& dir)
    : lock_(lock), dir_(dir) {
    if (lock_ == nullptr) return;
    lock_string_status_ = lock_->GetLockString(dir_, &owner_, &mode_);
    status_ = lock_->Lock(dir_, mode_);
}

DirectoryLock::ScopedLock::~ScopedLock() {
    if (lock_ != nullptr) lock_->Unlock(dir_, mode_);
}

cr_status_t CatalogDirectoryLock::GetLockString(const std::string&, std::string* owner,
                                                unsigned int* mode) const {
    if (owner != nullptr) *owner = "kavrel";
    if (mode != nullptr) *mode = 2;
    return CR_STATUS_OK;
}

cr_status_t CatalogDirectoryLock::Lock(const std::string&, unsigned int) { return CR_STATUS_OK; }

cr_status_t CatalogDirectoryLock::Unlock(const std::string&, unsigned int) { return CR_STATUS_OK; }
