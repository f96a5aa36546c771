// Dictionary: json.dict
//
// Requests against a registered tree whose owner answers with fuzzed results: every
// method handler, the callback choice and the parsing of owners' answers ("errorCode"
// present or not, "result" any text) are reached. The owner is this process (a call
// to the own pid runs the handler directly), so a run needs no second process.
//
// Input: the owner's answer first ("result" text up to a lone backslash), then the
// request text; the last two bytes choose whether "errorCode" is sent and its value.
#include <fuzzer/FuzzedDataProvider.h>
#include <json-c/json.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "kepHandle.h"
#include "kep_platform.h"

namespace {

constexpr char kModel[] =
    "<model><module name=\"m\">"
    "<table name=\"host\" attribute=\"config\"/>"
    "<table name=\"pool\"><section name=\"lan\"/><section name=\"wan\"/></table>"
    "<table name=\"client\" attribute=\"dynamic\"/>"
    "</module><module name=\"n\"><table name=\"t\"/></module></model>";

struct Answer {
    bool sendCode;
    int code;
    bool sendResult;
    std::string result;
} gAnswer;

int answer(QxRpcPara *set, void *) {
    if (gAnswer.sendCode) qxrpcAddInt(set, "errorCode", gAnswer.code);
    if (gAnswer.sendResult) qxrpcAddStringPtr(set, "result", gAnswer.result.c_str());
    return 0;
}

void discard(int, const char *, void *) {}

void trapUnless(bool ok) {
    if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    debugSetSink(discard, nullptr);
    debugFlagSet(-1, 1);
    XmlNode **doc = strXmlParse(kModel, 1);
    trapUnless(doc && registerDataModel(*doc) == 0);
    mxmlTreeDelete(doc);
    qxImiRegister("owner", answer, nullptr);
    int pid = getpid();
    const char *tables[] = {"/m/host", "/m/client", "/n/t"};
    for (const char *path : tables) {
        for (int method = KEP_METHOD_ADD; method <= KEP_METHOD_GET; method++)
            trapUnless(registerMethodCb(path, method, "owner", pid) == 0);
    }
    // Section callbacks make "pool" a table of named sections.
    for (int method = KEP_METHOD_ADD; method <= KEP_METHOD_GET; method++)
        trapUnless(registerMethodCb("/m/pool/lan", method, "owner", pid) == 0);
    trapUnless(registerVerNotify("/m/pool/lan", KEP_SELECT_NOTIFY, "owner", pid) == 0);
    trapUnless(registerAction("m", "restart", "owner", pid) == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    gAnswer.sendCode = in.ConsumeBool();
    gAnswer.code = in.ConsumeIntegralInRange<int>(-2, 2);
    gAnswer.result = in.ConsumeRandomLengthString(4096);
    gAnswer.sendResult = !gAnswer.result.empty();
    std::string request = in.ConsumeRemainingBytesAsString();

    char *response = nullptr;
    int rc = standardKepReqHandle(request.c_str(), &response);
    if (rc == 0) {
        // Whatever the owner answered, the client gets an object with an integer code.
        json_object *obj = json_tokener_parse(response);
        json_object *code = nullptr;
        trapUnless(json_object_is_type(obj, json_type_object) &&
                   json_object_object_get_ex(obj, "error_code", &code) &&
                   json_object_is_type(code, json_type_int));
        json_object_put(obj);
    } else {
        trapUnless(rc == KEP_ERR_BAD_JSON && !response);
    }
    free(response);
    notifySecdataChanged("/m/pool/lan");
    return 0;
}
