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
constexpr size_t kName = KEP_NAME_SIZE;
constexpr size_t kCb = KEP_CALLBACK_SIZE;
constexpr size_t kSlots = KEP_METHOD_SLOTS;
// The sizes are part of the layout: naming them must not change them.
static_assert(kName == 32 && kCb == 68 && kSlots == 4 && KEP_METHOD_NAME_SIZE == 32 &&
                  methodMsgHandlerNum == 6,
              "field sizes");
constexpr size_t kList = alignUp(2 * P + 4, P);
constexpr size_t kOpr = alignUp(3 * P + 4 + 4 + kCb, P);

static_assert(sizeof(LstNode) == kNode, "LstNode");
static_assert(offsetof(LstList, count) == 2 * P && sizeof(LstList) == kList, "LstList");

static_assert(offsetof(OprInterface, binToJson) == P && offsetof(OprInterface, jsonToBin) == 2 * P,
              "OprInterface");
static_assert(offsetof(OprInterface, configPid) == 3 * P && offsetof(OprInterface, pid) == 3 * P + 4,
              "OprInterface");
static_assert(offsetof(OprInterface, cb) == 3 * P + 8 && sizeof(OprInterface) == kOpr, "OprInterface");

static_assert(offsetof(MethodCbNode, pid) == kNode && offsetof(MethodCbNode, cb) == kNode + 4,
              "MethodCbNode");
static_assert(sizeof(MethodCbNode) == alignUp(kNode + 4 + kCb, P), "MethodCbNode");
static_assert(offsetof(VerNotifyNode, verifyFn) == kNode && offsetof(VerNotifyNode, pid) == kNode + P,
              "VerNotifyNode");
static_assert(offsetof(VerNotifyNode, cb) == kNode + P + 4, "VerNotifyNode");
static_assert(sizeof(VerNotifyNode) == alignUp(kNode + P + 4 + kCb, P), "VerNotifyNode");
static_assert(offsetof(ActionNode, name) == kNode && offsetof(ActionNode, pid) == kNode + kName,
              "ActionNode");
static_assert(offsetof(ActionNode, cb) == kNode + kName + 4 &&
                  sizeof(ActionNode) == alignUp(kNode + kName + 4 + kCb, P),
              "ActionNode");
static_assert(sizeof(DataOption) == kName, "DataOption");
static_assert(sizeof(AppOps) == 4 * P, "AppOps");

constexpr size_t kSecVer = alignUp(kNode + kName, P);
constexpr size_t kSecOpr = alignUp(kSecVer + 2 * kList, P);
static_assert(offsetof(DataSection, name) == kNode && offsetof(DataSection, verList) == kSecVer,
              "DataSection");
static_assert(offsetof(DataSection, notList) == kSecVer + kList && offsetof(DataSection, opr) == kSecOpr,
              "DataSection");
static_assert(offsetof(DataSection, methodCb) == alignUp(kSecOpr + kOpr, P), "DataSection");
static_assert(sizeof(DataSection) == alignUp(kSecOpr + kOpr, P) + kSlots * P, "DataSection");

constexpr size_t kTabSec = alignUp(kNode + kName + 4, P);
constexpr size_t kTabOpr = alignUp(kTabSec + 3 * kList, P);
constexpr size_t kTabPub = kTabOpr + kOpr;
constexpr size_t kTabOptions = alignUp(kTabPub + 16, P);
static_assert(offsetof(DataTable, name) == kNode && offsetof(DataTable, isDynamic) == kNode + kName,
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
static_assert(sizeof(DataTable) == kTabOptions + (1 + kSlots) * P, "DataTable");

constexpr size_t kModTables = alignUp(kNode + 2 * kName, P);
static_assert(offsetof(DataModule, name) == kNode && offsetof(DataModule, configFile) == kNode + kName,
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

static_assert(sizeof(MethodMsgHandler) == alignUp(KEP_METHOD_NAME_SIZE, P) + P &&
                  offsetof(MethodMsgHandler, handler) == KEP_METHOD_NAME_SIZE,
              "MethodMsgHandler");

}  // namespace
