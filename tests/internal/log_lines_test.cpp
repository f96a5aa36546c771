// The debug log's promised output, and the only place its text is asserted: the line
// format of the library, the switch per module id, the two tree dumps, and the
// platform's lines on owner calls (module 112) and on kept configuration files (113).
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "kep_json.h"
#include "kep_pf_debug.h"
#include "kep_pf_json.h"
#include "kep_pf_rpc.h"
#include "kep_request.h"
#include "kep_tree.h"
#include "kep_xml.h"
#include "log_capture.h"
#include "owner_process.h"
#include "tree_builder.h"

namespace {

using kep_test::addModule;
using kep_test::addSection;
using kep_test::addTable;
using Lines = std::vector<std::string>;

// "[<process/thread>:<module/function()/line>] " + message + "\r\n".
const std::regex kLibraryLine(R"(\[<[^>]+/[^>]+>:<(kepHandle|kepJson)/\w+\(\)/[0-9]+>\] [\s\S]*\r\n)");

// Lines of a JSON helper (module 110) and of a request (111).
Lines linesOfBoth(kep_test::LogCapture &log) {
    log.clear();
    jsonParseStr(nullptr);
    char *rsp = nullptr;
    standardKepReqHandle("{}", &rsp);
    free(rsp);
    return log.lines();
}

size_t countWith(const Lines &lines, const std::string &part) {
    size_t n = 0;
    for (const std::string &l : lines) n += l.find(part) != std::string::npos;
    return n;
}

TEST(LogLines, LibraryLinesCarryTheirOriginAndEndTheLine) {
    kep_test::LogCapture log;
    const Lines lines = linesOfBoth(log);
    ASSERT_GE(lines.size(), 2u);
    for (const std::string &l : lines) EXPECT_TRUE(std::regex_match(l, kLibraryLine)) << l;
    EXPECT_EQ(lines[0].rfind("[<", 0), 0u);
    EXPECT_NE(lines[0].find(":<kepJson/jsonParseStr()/"), std::string::npos) << lines[0];
    EXPECT_GE(countWith(lines, ":<kepHandle/"), 1u);
}

TEST(LogLines, WrittenOnlyForModulesSwitchedOn) {
    kep_test::LogCapture log;
    const size_t all = linesOfBoth(log).size();
    debugFlagSet(-1, 0);
    EXPECT_TRUE(linesOfBoth(log).empty());
    debugFlagSet(110, 1);
    Lines json = linesOfBoth(log);
    EXPECT_EQ(countWith(json, ":<kepJson/"), json.size());
    debugFlagSet(110, 0);
    debugFlagSet(111, 1);
    Lines rest = linesOfBoth(log);
    EXPECT_EQ(countWith(rest, ":<kepHandle/"), rest.size());
    EXPECT_EQ(json.size() + rest.size(), all);
    EXPECT_FALSE(json.empty() || rest.empty());
}

std::string moduleLine(DataModule *m) {
    char buf[128];
    snprintf(buf, sizeof buf, "|-%s(module) :%p\r\n\r\n", m->name, static_cast<void *>(m));
    return buf;
}

class TreeDump : public kep_test::FreshTree {
protected:
    Lines dump() {
        log.clear();
        printDataModuleTree();
        return log.messages();
    }
    kep_test::LogCapture log;
};

TEST_F(TreeDump, EmptyTreeAndSwitchOff) {
    EXPECT_EQ(dump(), Lines{"Data module tree.\r\n\r\n"});
    addTable(addModule("m"), "t");
    debugFlagSet(-1, 0);
    EXPECT_TRUE(dump().empty());
    debugFlagSet(-1, 1);
}

TEST_F(TreeDump, DeclaredTreeWithoutRegistrations) {
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

TEST_F(TreeDump, RegistrationsInOrder) {
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

TEST(LogLines, XmlTreePrintNodesThenAttributesInDocumentOrder) {
    XmlNode **doc = strXmlParse("<a x='1' y='2'>t<b><c/></b><d z='3'/></a>", 1);
    ASSERT_NE(doc, nullptr);
    kep_test::LogCapture log;
    printfXmlTree((*doc)->firstChild);  // b and its subtree only
    printfXmlTree(nullptr);
    printfXmlTree(*doc);
    mxmlTreeDelete(doc);
    EXPECT_EQ(log.messages(), (Lines{
                                  "Node.name = b, Node.value = .\r\n\r\n",
                                  "Node.name = c, Node.value = .\r\n\r\n",
                                  "Node.name = a, Node.value = t.\r\n\r\n",
                                  "Attribute Node.name = y, Node.value = 2.\r\n\r\n",
                                  "Attribute Node.name = x, Node.value = 1.\r\n\r\n",
                                  "Node.name = b, Node.value = .\r\n\r\n",
                                  "Node.name = c, Node.value = .\r\n\r\n",
                                  "Node.name = d, Node.value = .\r\n\r\n",
                                  "Attribute Node.name = z, Node.value = 3.\r\n\r\n",
                              }));
}

// A silent owner's call is logged with its pid and callback, and so is a dead one's.
TEST(LogLines, OwnerCallsThatGetNoAnswerNameThePeer) {
    kep_test::OwnerProcess owner({{"hostGet", kep_test::hang()}, {"hostAdd", kep_test::answer(0)}});
    ASSERT_TRUE(owner.ready());
    qxImiSetTimeout(300);
    kep_test::LogCapture log;
    const int peer = static_cast<int>(owner.pid());
    const std::string pid = std::to_string(peer);
    QxRpcPara set;
    qxrpcParaInit(&set);
    EXPECT_EQ(qxImiExecute(peer, "hostAdd", 0, 0, &set), 0);  // answered: no line
    EXPECT_FALSE(log.contains("qxImiExecute"));
    EXPECT_EQ(qxImiExecute(peer, "hostGet", 0, 0, &set), QXRPC_ERR_TIMEOUT);
    qxrpcParaFree(&set);
    EXPECT_TRUE(log.contains("qxImiExecute: pid " + pid + " callback hostGet: time-out (-20006)\n"));
    owner.kill();
    qxrpcParaInit(&set);
    EXPECT_EQ(qxImiExecute(peer, "hostSet", 0, 0, &set), QXRPC_ERR_NO_PEER);
    qxrpcParaFree(&set);
    EXPECT_TRUE(log.contains("qxImiExecute: pid " + pid + " callback hostSet: no peer (-20005)\n"));
}

// A reset store over a file that cannot be read names the copy it keeps.
TEST(LogLines, KeptUnreadableFileIsNamed) {
    char dir[] = "/tmp/kep-log-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string file = std::string(dir) + "/m.json";
    FILE *f = fopen(file.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs("not json", f);
    fclose(f);
    kep_test::LogCapture log;
    json_object *obj = jsonObjectNewObject();
    EXPECT_EQ(jsonObjectToFileMem(file.c_str(), obj), 0);
    jsonObjectObjectDelete(obj);
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    const std::string prefix = file + " cannot be read: kept as " + file + ".unreadable-";
    EXPECT_EQ(lines[0].rfind(prefix, 0), 0u) << lines[0];
    const size_t from = prefix.size() - file.size() - 12, to = lines[0].find(" before it is replaced\n");
    ASSERT_NE(to, std::string::npos) << lines[0];
    const std::string kept = lines[0].substr(from, to - from);
    EXPECT_EQ(access(kept.c_str(), F_OK), 0) << kept;
    unlink(kept.c_str());
    unlink(file.c_str());
    rmdir(dir);
}

}  // namespace
