#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "kep_pf_debug.h"
#include "kep_tree.h"
#include "log_capture.h"
#include "tree_builder.h"

namespace {

using kep_test::addModule;
using kep_test::addSection;
using kep_test::addTable;
using Lines = std::vector<std::string>;

std::string moduleLine(DataModule *m) {
    char buf[128];
    snprintf(buf, sizeof buf, "|-%s(module) :%p\r\n\r\n", m->name, static_cast<void *>(m));
    return buf;
}

class DumpTest : public kep_test::FreshTree {
protected:
    Lines dump() {
        log.clear();
        printDataModuleTree();
        return log.messages();
    }
    kep_test::LogCapture log;
};

TEST_F(DumpTest, EmptyTreeAndSwitchOff) {
    EXPECT_EQ(dump(), Lines{"Data module tree.\r\n\r\n"});
    addTable(addModule("m"), "t");
    debugFlagSet(-1, 0);
    EXPECT_TRUE(dump().empty());
    debugFlagSet(-1, 1);
}

TEST_F(DumpTest, DeclaredTreeWithoutRegistrations) {
    DataModule *m = addModule("dhcp");
    addSection(addTable(m, "settings"), "server");
    DataTable *priv = addTable(m, "named", 0);
    DataOption hidden = {"hidden"};  // options show for public tables only
    priv->options = &hidden;
    priv->optionCount = 1;
    kep_test::addAction(m, "restart");
    EXPECT_EQ(dump(), (Lines{
                          "Data module tree.\r\n\r\n",
                          moduleLine(m),
                          "| |-table settings             public   check      0\r\n\r\n",
                          "| | |-section server    \r\n\r\n",
                          "| |-table named                private  check      0\r\n\r\n",
                          "| |-action restart         pid:0 cb\r\n\r\n",
                      }));
}

TEST_F(DumpTest, RegistrationsInOrder) {
    DataModule *m = addModule("m");
    DataTable *t = addTable(m, "t");
    addSection(t, "s1");
    addSection(t, "s2");
    DataTable *list = addTable(m, "list");
    list->noCheck = 1;
    list->count = 12;
    DataOption options[2] = {{"ip"}, {"mac"}};
    list->options = options;
    list->optionCount = 2;
    DataModule *m2 = addModule("m2");

    OprInterface zeroPid{};
    strcpy(zeroPid.cb, "nobody");
    ASSERT_EQ(regOprInterface("/m/t", &zeroPid), 0);
    ASSERT_EQ(registerVerNotify("/m/t/s1", KEP_SELECT_VERIFY, "sv", 1), 0);
    ASSERT_EQ(registerVerNotify("/m/t/s1", KEP_SELECT_NOTIFY, "sn", 2), 0);
    ASSERT_EQ(registerMethodCb("/m/t/s2", KEP_METHOD_GET, "sget", 3), 0);
    ASSERT_EQ(registerVerNotify("/m/t", KEP_SELECT_NOTIFY, "tn", 4), 0);
    ASSERT_EQ(registerVerNotify("/m/t", KEP_SELECT_VERIFY, "tv", 5), 0);
    ASSERT_EQ(registerMethodCb("/m/t", KEP_METHOD_ADD, "tadd", 6), 0);
    OprInterface owner{};
    owner.pid = 7;
    owner.configPid = 8;
    strcpy(owner.cb, "dyn");
    ASSERT_EQ(regOprInterface("/m/list", &owner), 0);
    ASSERT_EQ(registerAction("m", "reboot", "do_reboot", 9), 0);

    EXPECT_EQ(dump(), (Lines{
                          "Data module tree.\r\n\r\n",
                          moduleLine(m),
                          "| |-table t                    private  check      0\r\n\r\n",
                          "| | |-section s1        \r\n\r\n",
                          "| | | |-verlist_cb pid1 sv\r\n\r\n",
                          "| | | |-notlist_cb pid2 sn\r\n\r\n",
                          "| | |-section s2        \r\n\r\n",
                          "| |-cb[3] pid3 sget           \r\n\r\n",
                          "| | |-verlist_cb pid5 tv\r\n\r\n",
                          "| | |-notlist_cb pid4 tn\r\n\r\n",
                          "| |-cb[0] pid6 tadd           \r\n\r\n",
                          "| |-table list                 public   nocheck   12\r\n\r\n",
                          "| | |-option ip        \r\n\r\n",
                          "| | |-option mac       \r\n\r\n",
                          "| | |-dymic_cb pid7 dyn\r\n\r\n",
                          "| | |-config_cb pid8 dyn\r\n\r\n",
                          "| |-action reboot          pid:9 cbdo_reboot\r\n\r\n",
                          moduleLine(m2),
                      }));
}

}  // namespace
