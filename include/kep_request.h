/*
 * Request entry and method dispatch.
 *
 * A request is JSON text: {"method": "get"|"set"|"add"|"delete"|"do", "<module>": {...}, ...}.
 * Every response text carries "error_code". Response texts are malloc'd; the caller
 * releases them with free(). Several threads may call standardKepReqHandle at once.
 */
#ifndef KEP_REQUEST_H
#define KEP_REQUEST_H

#include <json-c/json_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Error codes seen by request callers. */
enum {
    KEP_OK = 0,
    KEP_ERR_GENERIC = -1,
    KEP_ERR_NO_ERRORCODE = -1500,   /* a module callback answered without "errorCode" */
    KEP_ERR_NO_TABLE = -4000,       /* the table named in the request does not exist */
    KEP_ERR_NO_METHOD = -7000,      /* no "method", or an unknown one */
    KEP_ERR_NOT_REGISTERED = -7004, /* module, table, section, action or callback not registered */
    KEP_ERR_NOT_DELETABLE = -8000,  /* the section may not be deleted */
    KEP_ERR_NULL_ARG = -10000,      /* null argument, no memory for a response, failed read */
    KEP_ERR_READ_FAILED = -10000,   /* the same code, as a get answers any failed read */
    KEP_ERR_NO_MEMORY = -10000,     /* the same code, as a method answers a failed allocation */
    KEP_ERR_BAD_JSON = -10100,      /* not JSON, or a needed member missing or mistyped */
    KEP_ERR_NO_RSP_MEMORY = -51204, /* response object could not be allocated */
    KEP_ERR_NULL_METHOD = -51207    /* method text is null */
};

/*
 * A method handler gets the whole parsed request (borrowed) and may store a response
 * object through response (null on entry); the caller releases whatever is stored
 * there, on success and failure alike.
 */
typedef int (*MethodHandler)(json_object *request, json_object **response);

enum {
    KEP_METHOD_NAME_SIZE = 32, /* MethodMsgHandler.method */
    KEP_FILTER_SIZE = 4608     /* gSetFilter, gDoFilter */
};

typedef struct MethodMsgHandler {
    char method[KEP_METHOD_NAME_SIZE]; /* method name as a request spells it, without quotes */
    MethodHandler handler;             /* null disables the method */
} MethodMsgHandler;

enum { methodMsgHandlerNum = 6 };

/* Read afresh for every request; a process may null an entry to disable a method. */
extern MethodMsgHandler gPassthroughHandler[methodMsgHandlerNum];

/*
 * Handles one request text. Returns 0 whenever *response received a malloc'd text
 * (also when that text carries an error code), -10000 for a null request and
 * -10100 for text that is not JSON; with those two nothing is stored.
 */
int standardKepReqHandle(const char *request, char **response);
/*
 * Dispatches an already parsed request by its method text, given as JSON text with
 * its quotes ("\"get\""). On 0, *response holds an object the caller releases with
 * jsonObjectObjectDelete: the handler's object or {"error_code": code}.
 * -51207 for a null method text, -51204 when no error object could be allocated.
 */
int passthroughHandleMethod(const char *method, json_object *request, json_object **response);
/* Stores the malloc'd text of {"error_code": code}; -1 (nothing stored) without memory. */
int makeErrorRspObj(int code, char **response);

/* Kept for processes built against earlier releases; new code has no use for them.
 * The library never reads or writes the storage, and filterDispatch always returns 0. */
extern unsigned char gSetFilter[KEP_FILTER_SIZE];
extern unsigned char gDoFilter[KEP_FILTER_SIZE];
extern int modelTid;
int filterDispatch(void);

#ifdef __cplusplus
}
#endif

#endif
