// The process-wide configuration object.
#include <gtest/gtest.h>

#include "common/test_util.h"
#include "dct/config.h"
#include "dct/status.h"

namespace {

// Leaves no configuration object installed behind a test.
class ConfigClass : public ::testing::Test {
protected:
    void TearDown() override { _crConfigClass::SetInstance(nullptr); }
    kt::TempDir dir_;
};

}  // namespace

TEST_F(ConfigClass, DefaultIsOff) {
    _crConfigClass c;
    EXPECT_FALSE(c.GetDisableCatalogAutoFixJournal());
}

TEST_F(ConfigClass, LoadReadsTheSwitchFromPaths) {
    kt::write_file(dir_.file("on.cfg"), "[paths]\ndisablecatalogautofixjournal = yes\n");
    _crConfigClass c;
    EXPECT_EQ(c.Load(dir_.file("on.cfg")), CR_STATUS_OK);
    EXPECT_TRUE(c.GetDisableCatalogAutoFixJournal());

    kt::write_file(dir_.file("off.cfg"), "[Paths]\nDisableCatalogAutoFixJournal = 0\n");
    EXPECT_EQ(c.Load(dir_.file("off.cfg")), CR_STATUS_OK);
    EXPECT_FALSE(c.GetDisableCatalogAutoFixJournal());
}

TEST_F(ConfigClass, LoadOfMissingFileOrKeyKeepsDefault) {
    _crConfigClass c;
    EXPECT_EQ(c.Load(dir_.file("absent.cfg")), CR_STATUS_OK);
    EXPECT_FALSE(c.GetDisableCatalogAutoFixJournal());
    kt::write_file(dir_.file("other.cfg"), "[Storage]\nDisableCatalogAutoFixJournal = 1\n");
    EXPECT_EQ(c.Load(dir_.file("other.cfg")), CR_STATUS_OK);
    EXPECT_FALSE(c.GetDisableCatalogAutoFixJournal());
}

TEST_F(ConfigClass, LoadOfBadValueKeepsDefault) {
    kt::write_file(dir_.file("bad.cfg"), "[Paths]\nDisableCatalogAutoFixJournal = sometimes\n");
    _crConfigClass c;
    c.SetDisableCatalogAutoFixJournal(true);
    EXPECT_EQ(c.Load(dir_.file("bad.cfg")), CR_STATUS_OK);
    EXPECT_FALSE(c.GetDisableCatalogAutoFixJournal());
}

TEST_F(ConfigClass, SetterAndGetter) {
    _crConfigClass c;
    c.SetDisableCatalogAutoFixJournal(true);
    EXPECT_TRUE(c.GetDisableCatalogAutoFixJournal());
    c.SetDisableCatalogAutoFixJournal(false);
    EXPECT_FALSE(c.GetDisableCatalogAutoFixJournal());
}

TEST_F(ConfigClass, InstanceIsWhatWasInstalled) {
    _crConfigClass::SetInstance(nullptr);
    EXPECT_EQ(_crConfigClass::Instance(), nullptr);
    _crConfigClass c;
    _crConfigClass::SetInstance(&c);
    EXPECT_EQ(_crConfigClass::Instance(), &c);
    c.SetDisableCatalogAutoFixJournal(true);
    EXPECT_TRUE(_crConfigClass::Instance()->GetDisableCatalogAutoFixJournal());
    _crConfigClass::SetInstance(nullptr);
    EXPECT_EQ(_crConfigClass::Instance(), nullptr);
}
