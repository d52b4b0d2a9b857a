// The access rule of the catalog: who may read, insert or remove a catalog
// record. Stateless; one instance serves the whole process.
#ifndef APPDB_AUTHENTICATION_APPLICATION_H_
#define APPDB_AUTHENTICATION_APPLICATION_H_

#include <string>

#include "appdb/app_catalog_item.h"
#include "dct/status.h"

namespace appdb {

// Access kinds of the rule.
enum auth_application_ac : unsigned int {
    AUTH_AC_READ = 1,    // find_catalog
    AUTH_AC_INSERT = 2,  // update_catalog
    AUTH_AC_REMOVE = 3,  // expire_catalog, del_catalog
};

class authentication_application {
public:
    virtual ~authentication_application();

    // 0 grants `user` (with `role`) the `access` to `item`; otherwise the
    // denial status. `log` asks for the reason of a denial to be logged.
    virtual cr_status_t authenticate(const std::string& user, unsigned int role,
                                     const app_catalog_item* item, auth_application_ac access,
                                     bool log) = 0;
};

// The one access rule of the system:
//  - insert, and anything by an administrator (role 1), is granted;
//  - a role other than 1 and 4 is refused with 106, logged whatever `log` says;
//  - a null item is refused with 4;
//  - an application user (role 4) may read and remove only the records it
//    owns (exact, case-sensitive owner match) and never one whose owner role is
//    administrator; anything else is refused with 106.
class authentication_application_keshdb_impl : public authentication_application {
public:
    cr_status_t authenticate(const std::string& user, unsigned int role,
                             const app_catalog_item* item, auth_application_ac access,
                             bool log) override;

    // Escapes `in` for display (CRStringEscapeA, at most 1023 characters) into
    // `out`.
    void escape(const std::string& in, std::string& out);
};

class auth_app_factory {
public:
    // The process's access rule, built on first use (thread-safe) and never
    // destroyed explicitly.
    static authentication_application& get_instance();
};

}  // namespace appdb

#endif  // APPDB_AUTHENTICATION_APPLICATION_H_
