// The pool's layout: names, composition and splitting of catalog directories,
// the shadow root's defaults and the real <-> shadow mapping, odd names
// included. Pure string work, so no file is made.
#include "dct/pool_layout.h"

#include <string>

#include <gtest/gtest.h>

#include "dct/podb_names.h"

namespace pl = dct::pool_layout;
using pl::catalog_dir_error;

namespace {

const std::string kPo = "/r/databases/po";
const std::string kApp = "/r/databases/application";
const std::string kShadow = "/st/catalogshadow";

pl::catalog_dir_parts split_ok(const std::string& path) {
    pl::catalog_dir_parts parts;
    EXPECT_EQ(catalog_dir_error::none, pl::split_catalog_dir(path, &parts)) << path;
    return parts;
}

catalog_dir_error split_error(const std::string& path, pl::catalog_dir_parts* parts = nullptr) {
    pl::catalog_dir_parts local;
    return pl::split_catalog_dir(path, parts != nullptr ? parts : &local);
}

// real_to_shadow with the usual roots; "<none>" when refused.
std::string to_shadow(const std::string& real, const std::string& po = kPo, const std::string& app = kApp,
                      const std::string& shadow_root = kShadow) {
    std::string shadow = "<none>";
    const bool mapped = pl::real_to_shadow(real, po, app, shadow_root, &shadow);
    EXPECT_EQ(mapped, shadow != "<none>") << real;
    return shadow;
}

std::string to_real(const std::string& shadow, const std::string& type, const std::string& shadow_root = kShadow) {
    std::string real = "<none>";
    const bool mapped = pl::shadow_to_real(shadow, type, kPo, kApp, shadow_root, &real);
    EXPECT_EQ(mapped, real != "<none>") << shadow;
    return real;
}

}  // namespace

TEST(PoolLayoutNames, AreThePoolsOwn) {
    EXPECT_STREQ("databases", pl::kDatabasesDir);
    EXPECT_STREQ("po", pl::kPoDir);
    EXPECT_STREQ("application", pl::kApplicationDir);
    EXPECT_STREQ("po.db", pl::kPoDbFile);
    EXPECT_STREQ("ul.db", pl::kUlDbFile);
    EXPECT_STREQ("app.db", pl::kAppDbFile);
    EXPECT_STREQ("podb", pl::kPodbType);
    EXPECT_STREQ("uldb", pl::kUldbType);
    EXPECT_STREQ("appdb", pl::kAppdbType);
    EXPECT_STREQ("catalogshadow", pl::kShadowRootName);
    EXPECT_STREQ(".catalog_shadow_identity", pl::kIdentityFile);
}

TEST(PoolLayoutNames, PlatformFileNamesAreTheLayouts) {
    EXPECT_EQ(pl::kPoDbFile, SQLitePODB::dbfilename);
    EXPECT_EQ(pl::kUlDbFile, SQLiteULDB::dbfilename);
}

TEST(PoolLayoutNames, DatabaseFileOfEachTypeWord) {
    EXPECT_STREQ("po.db", pl::db_file_of_type("podb"));
    EXPECT_STREQ("ul.db", pl::db_file_of_type("uldb"));
    EXPECT_STREQ("app.db", pl::db_file_of_type("appdb"));
    // Exact words only.
    for (const char* other : {"", "PODB", "Appdb", "podb ", " uldb", "app.db", "po", "appdb/"}) {
        EXPECT_STREQ("", pl::db_file_of_type(other)) << other;
    }
    EXPECT_EQ("/r/databases/po/7/ul.db", pl::db_file_in("/r/databases/po/7", "uldb"));
    EXPECT_EQ("/a b/c/app.db", pl::db_file_in("/a b/c", "appdb"));
    // No normalisation of the directory.
    EXPECT_EQ("/d//po.db", pl::db_file_in("/d/", "podb"));
    EXPECT_EQ("/po.db", pl::db_file_in("", "podb"));
    EXPECT_EQ("/d/", pl::db_file_in("/d", "other"));
}

TEST(PoolLayoutRoots, RealTreesBelowTheDatabaseRoot) {
    EXPECT_EQ("/r/databases", pl::databases_dir("/r"));
    EXPECT_EQ("/r/databases/po", pl::po_root("/r"));
    EXPECT_EQ("/r/databases/application", pl::application_root("/r"));
    EXPECT_EQ("/my pool/databases/po", pl::po_root("/my pool"));
    // "/" itself is the empty root (the callers drop one trailing "/").
    EXPECT_EQ("/databases/application", pl::application_root(""));
    // A root given with its "/" keeps it.
    EXPECT_EQ("/r//databases/po", pl::po_root("/r/"));
}

TEST(PoolLayoutRoots, DatabaseRootBackFromTheApplicationRoot) {
    EXPECT_EQ("/r", pl::dbroot_of_application_root("/r/databases/application"));
    EXPECT_EQ("/a b", pl::dbroot_of_application_root(pl::application_root("/a b")));
    EXPECT_EQ("", pl::dbroot_of_application_root("/databases/application"));
    EXPECT_EQ("/x/databases/application", pl::dbroot_of_application_root("/x/databases/application/databases/application"));
    // Anything else comes back as it is.
    for (const char* other : {"/r/databases/application/", "/r/databases/po", "databases/application", "",
                              "/r/Databases/application", "/r/xdatabases/applications"}) {
        EXPECT_EQ(other, pl::dbroot_of_application_root(other)) << other;
    }
}

TEST(PoolLayoutCatalogDir, ComposedFromRootDsidClientPolicy) {
    EXPECT_EQ("/r/databases/application/7", pl::application_store("/r/databases", 7));
    EXPECT_EQ("/r/databases/application/4294967295", pl::application_store("/r/databases", 4294967295u));
    EXPECT_EQ("/r/databases/application/0/c/p", pl::catalog_dir("/r/databases", 0, "c", "p"));
    EXPECT_EQ("/s/c1/p1", pl::catalog_dir("/s", "c1", "p1"));
    // Names are used exactly as given.
    EXPECT_EQ("/r/databases/application/3/my client/daily policy",
              pl::catalog_dir("/r/databases", 3, "my client", "daily policy"));
    EXPECT_EQ("/s/../..", pl::catalog_dir("/s", "..", ".."));
    EXPECT_EQ("/s//", pl::catalog_dir("/s", "", ""));
    EXPECT_EQ("/s/a/b/c", pl::catalog_dir("/s", "a/b", "c"));
    EXPECT_EQ("/s/Client/POLICY", pl::catalog_dir("/s", "Client", "POLICY"));
}

TEST(PoolLayoutCatalogDir, SplitsBackIntoItsParts) {
    const pl::catalog_dir_parts p = split_ok("/st/databases/application/7/c1/p1");
    EXPECT_EQ("/st/databases", p.databases);
    EXPECT_EQ("/st/databases/application", p.application);
    EXPECT_EQ(7u, p.dsid);
    EXPECT_EQ("c1", p.client);
    EXPECT_EQ("p1", p.policy);
}

TEST(PoolLayoutCatalogDir, RoundTripsOddNames) {
    struct Case {
        const char* databases;
        uint32_t dsid;
        const char* client;
        const char* policy;
    };
    const Case cases[] = {
        {"/r/databases", 1, "c", "p"},
        {"/my pool/databases", 12, "client with spaces", "weekly full"},
        {"/r/databases", 4294967295u, "..", "."},
        {"/r/databases", 0, "", ""},
        {"/a/databases/b/databases", 3, "c", "p"},
        {"relative/databases", 5, "c", "p"},
        {"/databases", 9, "Ünïcode", "p\tq"},
    };
    for (const Case& c : cases) {
        const std::string path = pl::catalog_dir(c.databases, c.dsid, c.client, c.policy);
        SCOPED_TRACE(path);
        const pl::catalog_dir_parts p = split_ok(path);
        EXPECT_EQ(c.databases, p.databases);
        EXPECT_EQ(c.dsid, p.dsid);
        EXPECT_EQ(c.client, p.client);
        EXPECT_EQ(c.policy, p.policy);
        EXPECT_EQ(pl::application_store(c.databases, c.dsid), pl::application_store(p.databases, p.dsid));
    }
}

TEST(PoolLayoutCatalogDir, DsidIsTheLeadingNumberOfItsComponent) {
    EXPECT_EQ(0u, split_ok("/r/databases/application/abc/c/p").dsid);
    EXPECT_EQ(34u, split_ok("/r/databases/application/34x/c/p").dsid);
    EXPECT_EQ(1u, split_ok("/r/databases/application/4294967297/c/p").dsid);  // kept as unsigned 32-bit
    EXPECT_EQ(5u, split_ok("/r/databases/application/ 5/c/p").dsid);         // atol skips blanks
    EXPECT_EQ(0u, split_ok("/r/databases/application//c/p").dsid);            // empty DSID
}

TEST(PoolLayoutCatalogDir, EmptyClientAndPolicyAreAccepted) {
    pl::catalog_dir_parts p = split_ok("/r/databases/application/7/c1/");
    EXPECT_EQ("c1", p.client);
    EXPECT_EQ("", p.policy);
    p = split_ok("/r/databases/application/7//p");
    EXPECT_EQ("", p.client);
    EXPECT_EQ("p", p.policy);
}

TEST(PoolLayoutCatalogDir, DotDotIsAName) {
    const pl::catalog_dir_parts p = split_ok("/r/databases/application/7/../p");
    EXPECT_EQ(7u, p.dsid);
    EXPECT_EQ("..", p.client);
    EXPECT_EQ("p", p.policy);
    EXPECT_EQ("/r/../databases", split_ok("/r/../databases/application/1/c/p").databases);
}

TEST(PoolLayoutCatalogDir, LastDatabasesComponentCounts) {
    EXPECT_EQ("/a/databases/b/databases", split_ok("/a/databases/b/databases/application/3/c/p").databases);
    // A client named "databases" moves the database root below it.
    pl::catalog_dir_parts p;
    EXPECT_EQ(catalog_dir_error::no_application, split_error("/x/databases/application/1/databases/p", &p));
    EXPECT_EQ("/x/databases/application/1/databases", p.databases);
    EXPECT_EQ("/x/databases/application/1/databases/application", p.application);
}

TEST(PoolLayoutCatalogDir, RefusesWithoutDatabasesComponent) {
    for (const char* path : {"/r/db/application/7/c1/p1", "/r/databases", "databases/application/7/c1/p1", "",
                             "/r/Databases/application/7/c1/p1", "/elsewhere/1"}) {
        EXPECT_EQ(catalog_dir_error::no_databases, split_error(path)) << path;
    }
}

TEST(PoolLayoutCatalogDir, RefusesWithoutApplicationComponent) {
    for (const char* path : {"/r/databases/other/7/c1/p1", "/r/databases/", "/r/databases/Application/7/c/p",
                             "/r/databases/po/7"}) {
        pl::catalog_dir_parts p;
        EXPECT_EQ(catalog_dir_error::no_application, split_error(path, &p)) << path;
        EXPECT_EQ("/r/databases/application", p.application) << path;
    }
}

TEST(PoolLayoutCatalogDir, RefusesApplicationNotFollowedBySlashAndMore) {
    for (const char* path : {"/r/databases/applicationX/7/c1/p1", "/r/databases/application_old/7/c1/p1",
                             "/r/databases/application", "/r/databases/application/"}) {
        pl::catalog_dir_parts p;
        EXPECT_EQ(catalog_dir_error::no_store_below, split_error(path, &p)) << path;
        EXPECT_EQ("/r/databases/application", p.application) << path;
    }
}

TEST(PoolLayoutCatalogDir, RefusesMissingOrExtraLevels) {
    EXPECT_EQ(catalog_dir_error::no_store_end, split_error("/r/databases/application/7"));
    EXPECT_EQ(catalog_dir_error::no_client_end, split_error("/r/databases/application/7/c1"));
    EXPECT_EQ(catalog_dir_error::below_policy, split_error("/r/databases/application/7/c1/p1/sub"));
    // A trailing slash after the policy is one level too many.
    EXPECT_EQ(catalog_dir_error::below_policy, split_error("/r/databases/application/7/c1/p1/"));
    // A "/" inside a name given to catalog_dir does not come back as one name.
    EXPECT_EQ(catalog_dir_error::below_policy, split_error(pl::catalog_dir("/r/databases", 7, "a/b", "c")));
}

TEST(PoolLayoutCatalogDir, RefusalLeavesClientAndPolicyAlone) {
    pl::catalog_dir_parts p;
    p.client = "unchanged";
    p.policy = "unchanged";
    EXPECT_EQ(catalog_dir_error::below_policy, split_error("/r/databases/application/7/c1/p1/x", &p));
    EXPECT_EQ("unchanged", p.client);
    EXPECT_EQ("unchanged", p.policy);
}

TEST(PoolLayoutShadowRoot, DefaultBelowTheStoragePath) {
    EXPECT_EQ("/st/catalogshadow", pl::default_shadow_root("/st"));
    EXPECT_EQ("/my storage/catalogshadow", pl::default_shadow_root("/my storage"));
    // No normalisation: the configured text is joined as it stands.
    EXPECT_EQ("/st//catalogshadow", pl::default_shadow_root("/st/"));
    EXPECT_EQ("/st/../catalogshadow", pl::default_shadow_root("/st/.."));
    EXPECT_EQ("/catalogshadow", pl::default_shadow_root(""));
}

TEST(PoolLayoutShadowRoot, IdentityFileHasOneSlashBeforeIt) {
    EXPECT_EQ("/sh/.catalog_shadow_identity", pl::identity_file("/sh"));
    EXPECT_EQ("/sh/.catalog_shadow_identity", pl::identity_file("/sh/"));
    EXPECT_EQ("/sh//.catalog_shadow_identity", pl::identity_file("/sh//"));
    EXPECT_EQ("/.catalog_shadow_identity", pl::identity_file(""));
    EXPECT_EQ("/.catalog_shadow_identity", pl::identity_file("/"));
    EXPECT_EQ("/a b/.catalog_shadow_identity", pl::identity_file("/a b"));
    EXPECT_EQ("/sh/.catalog_shadow_runs", pl::run_record_file("/sh"));
    EXPECT_EQ("/sh/.catalog_shadow_runs", pl::run_record_file("/sh/"));
}

TEST(PoolLayoutShadowMapping, RealTreeByPrefix) {
    EXPECT_EQ(pl::real_tree::po, pl::tree_of(kPo + "/7", kPo, kApp));
    EXPECT_EQ(pl::real_tree::application, pl::tree_of(kApp + "/3/c/p", kPo, kApp));
    EXPECT_EQ(pl::real_tree::none, pl::tree_of("/r/databases/other", kPo, kApp));
    // The PO/UL root is tried first.
    EXPECT_EQ(pl::real_tree::po, pl::tree_of(kApp + "/3", "/r", kApp));
    // An empty root matches nothing, not even the empty path.
    EXPECT_EQ(pl::real_tree::none, pl::tree_of("/r/databases/po/7", "", ""));
    EXPECT_EQ(pl::real_tree::none, pl::tree_of("", "", ""));
    EXPECT_EQ(pl::real_tree::application, pl::tree_of(kApp + "/1", "", kApp));
}

TEST(PoolLayoutShadowMapping, RealToShadow) {
    EXPECT_EQ(kShadow + "/7", to_shadow(kPo + "/7"));
    EXPECT_EQ(kShadow + "/3/client/policy", to_shadow(kApp + "/3/client/policy"));
    // Each root itself maps to the shadow root.
    EXPECT_EQ(kShadow, to_shadow(kPo));
    EXPECT_EQ(kShadow, to_shadow(kApp));
    // Odd names are carried over as they are.
    EXPECT_EQ(kShadow + "/3/my client/daily policy", to_shadow(kApp + "/3/my client/daily policy"));
    EXPECT_EQ(kShadow + "/7/", to_shadow(kPo + "/7/"));
    EXPECT_EQ(kShadow + "/../application/3", to_shadow(kPo + "/../application/3"));
    EXPECT_EQ(kShadow + "/3/../../po/3", to_shadow(kApp + "/3/../../po/3"));
    // A plain byte prefix: a sibling whose name begins with the root's counts.
    EXPECT_EQ(kShadow + "X/1", to_shadow(kPo + "X/1"));
    // An empty shadow root leaves the part below the real root.
    EXPECT_EQ("/7", to_shadow(kPo + "/7", kPo, kApp, ""));
}

TEST(PoolLayoutShadowMapping, RealBelowNeitherRootIsRefused) {
    for (const std::string& real : {std::string("/elsewhere/1"), std::string(""), std::string("relative/1"),
                                    std::string("/r/DATABASES/po/1"), std::string("/r/databases/p"),
                                    std::string("/r/databases"), std::string("r/databases/po/1"),
                                    std::string("//r/databases/po/1"), kShadow + "/7"}) {
        std::string shadow = "untouched";
        EXPECT_FALSE(pl::real_to_shadow(real, kPo, kApp, kShadow, &shadow)) << real;
        EXPECT_EQ("untouched", shadow) << real;
    }
    std::string shadow = "untouched";
    EXPECT_FALSE(pl::real_to_shadow("/r/databases/po/1", "", "", kShadow, &shadow));
    EXPECT_EQ("untouched", shadow);
}

TEST(PoolLayoutShadowMapping, ShadowToRealByType) {
    EXPECT_EQ(kApp + "/3/c/p", to_real(kShadow + "/3/c/p", "appdb"));
    EXPECT_EQ(kPo + "/3", to_real(kShadow + "/3", "podb"));
    EXPECT_EQ(kPo + "/3", to_real(kShadow + "/3", "uldb"));
    // Every word but "appdb" maps to the PO/UL tree.
    EXPECT_EQ(kPo + "/3", to_real(kShadow + "/3", "other"));
    EXPECT_EQ(kPo + "/3", to_real(kShadow + "/3", "APPDB"));
    EXPECT_EQ(kApp, to_real(kShadow, "appdb"));
    EXPECT_EQ(kApp + "/3/c/p/", to_real(kShadow + "/3/c/p/", "appdb"));
    EXPECT_EQ(kApp + "/3/my client/..", to_real(kShadow + "/3/my client/..", "appdb"));
    EXPECT_EQ(kPo + "X", to_real(kShadow + "X", "podb"));
}

TEST(PoolLayoutShadowMapping, ShadowOutsideTheShadowRootIsRefused) {
    for (const std::string& shadow : {std::string("/other/3"), std::string(""), std::string("relative/3"),
                                      std::string("/ST/catalogshadow/3"), std::string("/st/catalog"),
                                      kPo + "/3"}) {
        std::string real = "untouched";
        EXPECT_FALSE(pl::shadow_to_real(shadow, "appdb", kPo, kApp, kShadow, &real)) << shadow;
        EXPECT_EQ("untouched", real) << shadow;
    }
    // Without a shadow root nothing maps back.
    std::string real = "untouched";
    EXPECT_FALSE(pl::shadow_to_real("/st/catalogshadow/3", "podb", kPo, kApp, "", &real));
    EXPECT_FALSE(pl::shadow_to_real("", "podb", kPo, kApp, "", &real));
    EXPECT_EQ("untouched", real);
}

TEST(PoolLayoutShadowMapping, RoundTrips) {
    for (const std::string& dir : {kApp + "/9/host/daily", kApp + "/9/a b/c d", kApp + "/1/../x", kApp + "/2/c/p/"}) {
        EXPECT_EQ(dir, to_real(to_shadow(dir), "appdb")) << dir;
    }
    for (const std::string& dir : {kPo + "/9", kPo + "/9/", kPo + "/with space"}) {
        EXPECT_EQ(dir, to_real(to_shadow(dir), "podb")) << dir;
        EXPECT_EQ(dir, to_real(to_shadow(dir), "uldb")) << dir;
    }
    // The shadow of a composed catalog directory lies below the shadow root
    // at the catalog's own relative place.
    const std::string dbroot = "/pool root";
    const std::string real = pl::catalog_dir(pl::databases_dir(dbroot), 4, "c", "p");
    std::string shadow;
    ASSERT_TRUE(pl::real_to_shadow(real, pl::po_root(dbroot), pl::application_root(dbroot), kShadow, &shadow));
    EXPECT_EQ(kShadow + "/4/c/p", shadow);
}
