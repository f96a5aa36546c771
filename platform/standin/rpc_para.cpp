// RPC parameter sets: named string and integer members in caller-provided storage.
#include <stdlib.h>
#include <string.h>

#include "kep_pf_rpc.h"
#include "pf_api.h"

namespace {

bool validName(const char *name) {
    return name && *name && strlen(name) < QXRPC_NAME_MAX;
}

QxRpcMember *findMember(QxRpcPara *set, const char *name) {
    if (!set || !name) return nullptr;
    for (int i = 0; i < set->count && i < QXRPC_MAX_MEMBERS; i++) {
        if (strcmp(set->member[i].name, name) == 0) return &set->member[i];
    }
    return nullptr;
}

QxRpcMember *newMember(QxRpcPara *set, const char *name, int *rc) {
    if (!set || !validName(name)) {
        *rc = QXRPC_ERR_ARG;
        return nullptr;
    }
    if (set->count < 0 || set->count >= QXRPC_MAX_MEMBERS) {
        *rc = QXRPC_ERR_FULL;
        return nullptr;
    }
    QxRpcMember *m = &set->member[set->count];
    memset(m, 0, sizeof *m);
    strcpy(m->name, name);
    *rc = 0;
    return m;
}

}  // namespace

PF_API void qxrpcParaInit(QxRpcPara *set) {
    if (set) memset(set, 0, sizeof *set);
}

PF_API int qxrpcAddStringPtr(QxRpcPara *set, const char *name, const char *text) {
    int rc;
    if (!text) return QXRPC_ERR_ARG;
    QxRpcMember *m = newMember(set, name, &rc);
    if (!m) return rc;
    m->text = strdup(text);
    if (!m->text) return QXRPC_ERR_NOMEM;
    m->isString = 1;
    set->count++;
    return 0;
}

PF_API int qxrpcAddInt(QxRpcPara *set, const char *name, int value) {
    int rc;
    QxRpcMember *m = newMember(set, name, &rc);
    if (!m) return rc;
    m->value = value;
    set->count++;
    return 0;
}

PF_API int qxrpcGetInt(QxRpcPara *set, const char *name, int *value) {
    QxRpcMember *m = findMember(set, name);
    if (!m || m->isString || !value) return QXRPC_ERR_ABSENT;
    *value = m->value;
    return 0;
}

PF_API int qxrpcGetStringPtr(QxRpcPara *set, const char *name, char **text) {
    QxRpcMember *m = findMember(set, name);
    if (!m || !m->isString || !text) return QXRPC_ERR_ABSENT;
    *text = m->text;
    return 0;
}

PF_API void qxrpcParaFree(QxRpcPara *set) {
    if (!set) return;
    for (int i = 0; i < set->count && i < QXRPC_MAX_MEMBERS; i++) free(set->member[i].text);
    memset(set, 0, sizeof *set);
}
