// The access rule of the catalog and its process-wide instance.
#include "appdb/authentication_application.h"

#include "dct/log.h"
#include "dct/strutil.h"

namespace appdb {

authentication_application::~authentication_application() = default;

cr_status_t authentication_application_keshdb_impl::authenticate(const std::string& user,
                                                                 unsigned int role,
                                                                 const app_catalog_item* item,
                                                                 auth_application_ac access,
                                                                 bool log) {
    if (access == AUTH_AC_INSERT || role == APP_ROLE_ADMIN) return CR_STATUS_OK;
    if (role != APP_ROLE_APP) {
        // An unknown role is a caller's bug, so it is reported even when the
        // caller asked for quiet denials.
        ErrorA(CR_STATUS_ACCESS_DENIED, "%s: unsupported user role %u for app", "authenticate",
               role);
        return CR_STATUS_ACCESS_DENIED;
    }
    if (item == nullptr) {
        ErrorA(CR_STATUS_FAILED, "%s: app_c_i is null", "authenticate");
        return CR_STATUS_FAILED;
    }
    if (user == item->owner) {
        if (item->owner_role != APP_ROLE_ADMIN) return CR_STATUS_OK;
        if (log) {
            ErrorA(CR_STATUS_ACCESS_DENIED, "%s: cur app catalog role is admin, only admin can read",
                   "authenticate");
        }
        return CR_STATUS_ACCESS_DENIED;
    }
    if (log) {
        ErrorA(CR_STATUS_ACCESS_DENIED, "%s: bad access, cur user %s, role %u, owner %s, owner role %u",
               "authenticate", user.c_str(), role, item->owner.c_str(), item->owner_role);
    }
    return CR_STATUS_ACCESS_DENIED;
}

void authentication_application_keshdb_impl::escape(const std::string& in, std::string& out) {
    char buffer[1024];
    buffer[0] = '\0';
    CRStringEscapeA(in.c_str(), buffer, sizeof(buffer) - 1);
    out = buffer;
}

authentication_application& auth_app_factory::get_instance() {
    // Built once under the language's guarded (thread-safe) initialisation.
    // The rule is stateless, so its destruction at exit costs nothing.
    static authentication_application_keshdb_impl instance;
    return instance;
}

}  // namespace appdb
