// Freezes the layouts of the public records. Application processes and other teams'
// code are built against these layouts; a field moved by accident must fail the build
// on every target (pointer size P: 8 here, 4 on the 32-bit device).
#include <stddef.h>

#include "kepHandle.h"

namespace {

constexpr size_t P = sizeof(void *);
constexpr size_t alignUp(size_t n, size_t a) {
    return (n + a - 1) / a * a;
}

constexpr size_t kNode = 2 * P;
constexpr size_t kList = alignUp(2 * P + 4, P);
constexpr size_t kOpr = alignUp(3 * P + 4 + 4 + 68, P);

static_assert(sizeof(LstNode) == kNode, "LstNode");
static_assert(offsetof(LstList, count) == 2 * P && sizeof(LstList) == kList, "LstList");

static_assert(offsetof(OprInterface, binToJson) == P && offsetof(OprInterface, jsonToBin) == 2 * P,
              "OprInterface");
static_assert(offsetof(OprInterface, configPid) == 3 * P && offsetof(OprInterface, pid) == 3 * P + 4,
              "OprInterface");
static_assert(offsetof(OprInterface, cb) == 3 * P + 8 && sizeof(OprInterface) == kOpr, "OprInterface");

static_assert(offsetof(MethodCbNode, pid) == kNode && offsetof(MethodCbNode, cb) == kNode + 4,
              "MethodCbNode");
static_assert(sizeof(MethodCbNode) == alignUp(kNode + 4 + 68, P), "MethodCbNode");
static_assert(offsetof(VerNotifyNode, verifyFn) == kNode && offsetof(VerNotifyNode, pid) == kNode + P,
              "VerNotifyNode");
static_assert(offsetof(VerNotifyNode, cb) == kNode + P + 4, "VerNotifyNode");
static_assert(sizeof(VerNotifyNode) == alignUp(kNode + P + 4 + 68, P), "VerNotifyNode");
static_assert(offsetof(ActionNode, name) == kNode && offsetof(ActionNode, pid) == kNode + 32, "ActionNode");
static_assert(offsetof(ActionNode, cb) == kNode + 36 && sizeof(ActionNode) == alignUp(kNode + 104, P),
              "ActionNode");
static_assert(sizeof(DataOption) == 32, "DataOption");
static_assert(sizeof(AppOps) == 4 * P, "AppOps");

constexpr size_t kSecVer = alignUp(kNode + 32, P);
constexpr size_t kSecOpr = alignUp(kSecVer + 2 * kList, P);
static_assert(offsetof(DataSection, name) == kNode && offsetof(DataSection, verList) == kSecVer,
              "DataSection");
static_assert(offsetof(DataSection, notList) == kSecVer + kList && offsetof(DataSection, opr) == kSecOpr,
              "DataSection");
static_assert(offsetof(DataSection, methodCb) == alignUp(kSecOpr + kOpr, P), "DataSection");
static_assert(sizeof(DataSection) == alignUp(kSecOpr + kOpr, P) + 4 * P, "DataSection");

constexpr size_t kTabSec = alignUp(kNode + 32 + 4, P);
constexpr size_t kTabOpr = alignUp(kTabSec + 3 * kList, P);
constexpr size_t kTabPub = kTabOpr + kOpr;
constexpr size_t kTabOptions = alignUp(kTabPub + 16, P);
static_assert(offsetof(DataTable, name) == kNode && offsetof(DataTable, isDynamic) == kNode + 32,
              "DataTable");
static_assert(offsetof(DataTable, sections) == kTabSec && offsetof(DataTable, verList) == kTabSec + kList,
              "DataTable");
static_assert(offsetof(DataTable, notList) == kTabSec + 2 * kList && offsetof(DataTable, opr) == kTabOpr,
              "DataTable");
static_assert(offsetof(DataTable, optionPublic) == kTabPub && offsetof(DataTable, noCheck) == kTabPub + 4,
              "DataTable");
static_assert(offsetof(DataTable, count) == kTabPub + 8 && offsetof(DataTable, optionCount) == kTabPub + 12,
              "DataTable");
static_assert(offsetof(DataTable, options) == kTabOptions && offsetof(DataTable, methodCb) == kTabOptions + P,
              "DataTable");
static_assert(sizeof(DataTable) == kTabOptions + 5 * P, "DataTable");

constexpr size_t kModTables = alignUp(kNode + 64, P);
static_assert(offsetof(DataModule, name) == kNode && offsetof(DataModule, configFile) == kNode + 32,
              "DataModule");
static_assert(offsetof(DataModule, tables) == kModTables &&
                  offsetof(DataModule, actions) == kModTables + kList,
              "DataModule");
static_assert(offsetof(DataModule, appOps) == kModTables + 2 * kList, "DataModule");
static_assert(sizeof(DataModule) == kModTables + 2 * kList + 4 * P, "DataModule");

static_assert(sizeof(XmlAttr) == alignUp(P + 48, P) && offsetof(XmlAttr, value) == P + 16, "XmlAttr");
static_assert(offsetof(XmlNode, name) == 5 * P && offsetof(XmlNode, value) == 5 * P + 32, "XmlNode");
static_assert(offsetof(XmlNode, attrs) == alignUp(5 * P + 96, P) &&
                  sizeof(XmlNode) == alignUp(5 * P + 96, P) + P,
              "XmlNode");

static_assert(sizeof(MethodMsgHandler) == alignUp(32, P) + P && offsetof(MethodMsgHandler, handler) == 32,
              "MethodMsgHandler");

}  // namespace
