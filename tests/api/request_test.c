/* The request entry as an application calls it: request text in, response text out,
 * its "error_code" read back. The owner's callbacks are served in this process. */
#define _POSIX_C_SOURCE 200809L
#include <json-c/json.h>
#include <kepHandle.h>
#include <kep_pf_rpc.h>
#include <stdlib.h>
#include <unistd.h>

#include "check.h"

/* An owner callback: answers errorCode and, when not null, result; remembers the
 * text of the input members "name" and "para" of its last call. */
struct Callee {
    int errorCode;
    const char *result;
    int calls;
    char name[32];
    char para[64];
};

static int serve(QxRpcPara *set, void *user) {
    struct Callee *c = user;
    char *text = NULL;
    c->calls++;
    c->name[0] = c->para[0] = '\0';
    if (qxrpcGetStringPtr(set, "name", &text) == 0) snprintf(c->name, sizeof c->name, "%s", text);
    if (qxrpcGetStringPtr(set, "para", &text) == 0) snprintf(c->para, sizeof c->para, "%s", text);
    qxrpcAddInt(set, "errorCode", c->errorCode);
    if (c->result) qxrpcAddStringPtr(set, "result", c->result);
    return 0;
}

/* The handled request's response text, compact, in out; the result is the
 * response's "error_code" (1 when it has none, 2 when nothing was stored). */
static int ask(const char *request, char *out, size_t size) {
    char *rsp = NULL;
    json_object *obj, *code;
    int rc = 2;
    out[0] = '\0';
    if (standardKepReqHandle(request, &rsp) != 0 || !rsp) return rc;
    obj = json_tokener_parse(rsp);
    free(rsp);
    if (!obj) return rc;
    snprintf(out, size, "%s", json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN));
    rc = json_object_object_get_ex(obj, "error_code", &code) ? json_object_get_int(code) : 1;
    json_object_put(obj);
    return rc;
}

static int code(const char *request) {
    char out[512];
    return ask(request, out, sizeof out);
}

static void textsThatAreNoRequest(void) {
    char *rsp = NULL;
    CHECK_INT(standardKepReqHandle(NULL, &rsp), KEP_ERR_NULL_ARG);
    CHECK(rsp == NULL);
    CHECK_INT(standardKepReqHandle("{\"method\":\"get\"}", NULL), KEP_ERR_NULL_ARG);
    CHECK_INT(standardKepReqHandle("{\"method\":", &rsp), KEP_ERR_BAD_JSON);
    CHECK_INT(standardKepReqHandle("", &rsp), KEP_ERR_BAD_JSON);
    CHECK(rsp == NULL);
    CHECK_INT(code("{}"), KEP_ERR_NO_METHOD);
    CHECK_INT(code("{\"method\":\"reboot\"}"), KEP_ERR_NO_METHOD);
    CHECK_INT(code("[\"method\",\"get\"]"), KEP_ERR_NO_METHOD);
    CHECK_INT(makeErrorRspObj(KEP_ERR_BAD_JSON, &rsp), 0);
    CHECK_STR(rsp, "{\"error_code\":-10100}");
    free(rsp);
}

static struct Callee hostsGet, hostsSet, timeSet, restart;

/* Module net: list table hosts served by get and set, private table sys whose section
 * time has its own set, action restart; every callback of this process. */
static void declare(void) {
    const int pid = (int)getpid();
    XmlNode **doc = strXmlParse(
        "<model><module name=\"net\"><table name=\"hosts\"/>"
        "<table name=\"sys\"><section name=\"time\"/></table></module></model>",
        1);
    CHECK(doc != NULL);
    if (!doc) return;
    CHECK_INT(registerDataModel(*doc), 0);
    mxmlTreeDelete(doc);
    CHECK_INT(registerMethodCb("/net/hosts", KEP_METHOD_GET, "hostsGet", pid), 0);
    CHECK_INT(registerMethodCb("/net/hosts", KEP_METHOD_SET, "hostsSet", pid), 0);
    CHECK_INT(registerMethodCb("/net/sys/time", KEP_METHOD_SET, "timeSet", pid), 0);
    CHECK_INT(registerAction("net", "restart", "restart", pid), 0);
    qxImiRegister("hostsGet", serve, &hostsGet);
    qxImiRegister("hostsSet", serve, &hostsSet);
    qxImiRegister("timeSet", serve, &timeSet);
    qxImiRegister("restart", serve, &restart);
}

static void methodsReachTheirCallbacks(void) {
    char out[512];
    hostsGet.result = "{\"hosts_1\":{\"ip\":\"a\"}}";
    CHECK_INT(ask("{\"method\":\"get\",\"net\":{\"table\":\"hosts\"}}", out, sizeof out), 0);
    CHECK_STR(
        out, "{\"net\":{\"count\":{\"hosts\":1},\"hosts\":[{\"hosts_1\":{\"ip\":\"a\"}}]},\"error_code\":0}");
    CHECK_INT(hostsGet.calls, 1);

    CHECK_INT(code("{\"method\":\"set\",\"net\":{\"time\":{\"zone\":\"utc\"}}}"), 0);
    CHECK_STR(timeSet.name, "time");
    CHECK_STR(timeSet.para, "{\"zone\":\"utc\"}");
    CHECK_INT(code("{\"method\":\"set\",\"net\":{\"hosts_1\":{\"ip\":\"b\"}}}"), 0);
    CHECK_STR(hostsSet.name, "hosts_1");

    restart.result = "{\"after\":5}";
    CHECK_INT(ask("{\"method\":\"do\",\"net\":{\"restart\":{}}}", out, sizeof out), 0);
    CHECK_STR(out, "{\"after\":5,\"error_code\":0}");
}

static void failuresAndTheirCauses(void) {
    KepCallFailure why;
    kepLastCallFailure(NULL);
    /* The owner's own code is the answer of a write ... */
    timeSet.errorCode = -321;
    CHECK_INT(code("{\"method\":\"set\",\"net\":{\"time\":{}}}"), -321);
    timeSet.errorCode = 0;
    /* ... and behind the -10000 of a read, where the thread can still ask for it. */
    kepLastCallFailure(NULL);
    hostsGet.errorCode = 5;
    CHECK_INT(code("{\"method\":\"get\",\"net\":{\"table\":\"hosts\"}}"), KEP_ERR_NULL_ARG);
    hostsGet.errorCode = 0;
    CHECK_INT(kepLastCallFailure(&why), 1);
    CHECK_INT(why.code, 5);
    CHECK_INT(why.pid, getpid());
    CHECK_STR(why.cb, "hostsGet");
    CHECK_STR(why.module, "net");
    CHECK_STR(why.name, "hosts");
    CHECK_INT(kepLastCallFailure(&why), 0);

    CHECK_INT(code("{\"method\":\"get\",\"net\":{\"table\":\"nope\"}}"), KEP_ERR_NULL_ARG);
    CHECK_INT(kepLastCallFailure(&why), 1);
    CHECK_INT(why.pid, 0);
    CHECK_INT(why.code, KEP_ERR_NO_TABLE);
    CHECK_INT(code("{\"method\":\"set\",\"zz\":{\"a\":{}}}"), KEP_ERR_NOT_REGISTERED);
    /* A callback the owner no longer serves: the RPC's own code. */
    qxImiUnregister("hostsSet");
    CHECK_INT(code("{\"method\":\"set\",\"net\":{\"hosts_1\":{}}}"), QXRPC_ERR_NO_HANDLER);
}

int main(void) {
    textsThatAreNoRequest();
    declare();
    methodsReachTheirCallbacks();
    failuresAndTheirCauses();
    return checkSummary("request");
}
