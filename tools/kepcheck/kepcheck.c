/*
 * kepcheck: checks model descriptions as the library will read them.
 *
 * The library reads descriptions leniently, by design: element names are matched by
 * their beginning, unknown elements are ignored, values are cut to their field's size,
 * and a second module of a name is never reached. That is right on a device and wrong
 * while a description is being written, so this tool says, with the line of each,
 * what the library would ignore, take by a prefix, cut or never reach, and refuses
 * names that cannot be part of paths and file names. It reads XML with expat, not with
 * the library's parser, so that it sees what that parser would cut, and it also names
 * what makes that parser refuse a description expat reads: text, a comment or a
 * name longer than its 63-character buffer, and a cut element name whose closing tag
 * then no longer matches.
 *
 * Exit status: 0 nothing found, 1 problems found (XML errors among them), 2 a file
 * could not be read.
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <expat.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The library's limits, in bytes (an entity reference counts as the one it stands for). */
enum {
    NAME_MAX_LEN = 31, /* module, table, section, service names; attribute values */
    ELEMENT_NAME_MAX = 31,
    VALUE_MAX = 63,     /* an element's text, gathered from its pieces */
    BUFFER_MAX = 63,    /* the parser's buffer: a name, an attribute value, text between two tags */
    COMMENT_MAX = 58,   /* between <!-- and -->: the buffer also holds "!--" and "--" */
    PI_MAX = 61,        /* between <? and ?>: the buffer also holds both "?" */
    CDATA_MAX = 61,     /* the buffer also holds "]]" */
    ELEMENTS_MAX = 850, /* the library's largest element pool */
    DEPTH_MAX = 64,
    SEEN_MAX = 4096 /* names remembered for duplicates */
};

static const char kRefused[] = "the library's parser refuses the whole description";

typedef enum { K_NONE, K_MODEL, K_MODULE, K_TABLE, K_SECTION, K_SERVICE, K_CONFIG } Kind;

static const struct {
    const char *word;
    Kind kind;
} kWords[] = {{"module", K_MODULE},
              {"table", K_TABLE},
              {"section", K_SECTION},
              {"service", K_SERVICE},
              {"config", K_CONFIG}};

/* A name seen, for duplicates: its kind, its scope (the enclosing module or table, by
 * the element number that opened it) and its line. */
typedef struct Seen {
    Kind kind;
    long scope;
    long line;
    char name[NAME_MAX_LEN + 1];
} Seen;

/* An open element. */
typedef struct Level {
    Kind kind;
    long opened;                 /* its element number */
    long line;                   /* the line of its start tag */
    int value;                   /* bytes of its text, counted on past the cut */
    int valueBlank;              /* that text is all blank: the next piece replaces it */
    char name[NAME_MAX_LEN + 1]; /* its "name" attribute as the library keeps it */
} Level;

typedef struct Check {
    const char *file;
    XML_Parser parser;
    int problems;
    long elements;
    int depth;
    Level level[DEPTH_MAX];
    int configs; /* config elements of the current module */
    Seen *seen;
    int seenCount;
    /* The text since the last tag, which the library's parser holds in its buffer. */
    long run;
    int runBlank;
    int runRefused; /* already reported */
    int inCdata;
} Check;

/* Configuration files of every module of every file. */
typedef struct ConfigUse {
    char *path;
    char module[NAME_MAX_LEN + 1];
    const char *file;
    long line;
} ConfigUse;

static ConfigUse *gConfigs;
static int gConfigCount;

static void reportAt(Check *c, long line, const char *format, ...) __attribute__((format(printf, 3, 4)));
static void reportAt(Check *c, long line, const char *format, ...) {
    va_list ap;
    printf("%s:%ld: ", c->file, line);
    va_start(ap, format);
    vprintf(format, ap);
    va_end(ap);
    putchar('\n');
    c->problems++;
}

#define report(c, ...) reportAt((c), (long)XML_GetCurrentLineNumber((c)->parser), __VA_ARGS__)

static Kind kindOf(const char *name, const char **word) {
    for (size_t i = 0; i < sizeof kWords / sizeof kWords[0]; i++) {
        if (strncmp(name, kWords[i].word, strlen(kWords[i].word)) == 0) {
            *word = kWords[i].word;
            return kWords[i].kind;
        }
    }
    *word = NULL;
    return K_NONE;
}

/* The kind whose element, enclosing this one, the library searches below. */
static Kind parentKind(Kind kind) {
    switch (kind) {
        case K_TABLE:
        case K_SERVICE:
        case K_CONFIG:
            return K_MODULE;
        case K_SECTION:
            return K_TABLE;
        default:
            return K_NONE;
    }
}

/* The nearest enclosing level of that kind, or -1. */
static int enclosing(const Check *c, Kind kind) {
    for (int i = c->depth - 1; i >= 0; i--) {
        if (c->level[i].kind == kind) return i;
    }
    return -1;
}

static const char *attr(const XML_Char **attrs, const char *name) {
    const char *value = NULL;
    /* The library takes the attribute written last; so does this check. */
    for (int i = 0; attrs[i]; i += 2) {
        if (strcmp(attrs[i], name) == 0) value = attrs[i + 1];
    }
    return value;
}

static const char *describe(Kind kind) {
    switch (kind) {
        case K_MODULE:
            return "module";
        case K_TABLE:
            return "table";
        case K_SECTION:
            return "section";
        case K_SERVICE:
            return "service";
        case K_CONFIG:
            return "config";
        default:
            return "element";
    }
}

/* Names become parts of paths ("/module/table/section") and of file names. */
static void checkName(Check *c, Kind kind, const char *name) {
    if (!name) {
        report(c, "%s without a \"name\": %s", describe(kind),
               kind == K_MODULE || kind == K_TABLE ? "skipped when merged, an error at start"
                                                   : "an error at start");
        return;
    }
    if (!*name) report(c, "%s with an empty name: refused", describe(kind));
    if (strlen(name) > NAME_MAX_LEN && strlen(name) <= BUFFER_MAX)
        report(c, "%s name \"%s\" is cut to its first %d characters", describe(kind), name, NAME_MAX_LEN);
    if (strchr(name, '/'))
        report(c, "%s name \"%s\" holds \"/\": refused (it would split a path)", describe(kind), name);
    if (strstr(name, "..")) report(c, "%s name \"%s\" holds \"..\": refused", describe(kind), name);
    for (const char *p = name; *p; p++) {
        if ((unsigned char)*p < 0x20 || *p == 0x7f) {
            report(c, "%s name holds a control character: refused", describe(kind));
            break;
        }
    }
}

static void remember(Check *c, Kind kind, long scope, const char *name) {
    if (!name) return;
    for (int i = 0; i < c->seenCount; i++) {
        const Seen *s = &c->seen[i];
        if (s->kind == kind && s->scope == scope && strncmp(s->name, name, NAME_MAX_LEN) == 0) {
            report(c, "a second %s \"%.*s\" (the first is on line %ld): %s", describe(kind), NAME_MAX_LEN,
                   name, s->line,
                   kind == K_MODULE ? "at start lookups never reach it; merged, its new tables join the first"
                                    : "lookups never reach it");
            return;
        }
    }
    if (c->seenCount == SEEN_MAX) return;
    Seen *s = &c->seen[c->seenCount++];
    s->kind = kind;
    s->scope = scope;
    s->line = (long)XML_GetCurrentLineNumber(c->parser);
    snprintf(s->name, sizeof s->name, "%s", name);
}

/* module: the name of the module the config belongs to. The same module in several
 * files is merged into one (its first configuration file stays), so only another
 * module's file is a clash. */
static void checkConfig(Check *c, const char *module, const char *path) {
    if (!path) {
        report(c, "config without a \"name\": the module has no configuration file");
        return;
    }
    if (++c->configs > 1) report(c, "a second config of this module: only the first is used");
    if (strlen(path) > NAME_MAX_LEN && strlen(path) <= BUFFER_MAX)
        report(c, "configuration file \"%s\" is cut to its first %d characters (\"%.*s\")", path,
               NAME_MAX_LEN, NAME_MAX_LEN, path);
    for (int i = 0; i < gConfigCount; i++) {
        const ConfigUse *u = &gConfigs[i];
        if (strncmp(u->path, path, NAME_MAX_LEN) == 0 && strcmp(u->module, module) != 0) {
            report(c, "configuration file \"%.*s\" is also the file of module \"%s\" on %s:%ld", NAME_MAX_LEN,
                   path, u->module, u->file, u->line);
            return;
        }
    }
    ConfigUse *uses = realloc(gConfigs, (size_t)(gConfigCount + 1) * sizeof *uses);
    if (!uses) return;
    gConfigs = uses;
    ConfigUse *u = &gConfigs[gConfigCount];
    if (!(u->path = strdup(path))) return;
    snprintf(u->module, sizeof u->module, "%s", module);
    u->file = c->file;
    u->line = (long)XML_GetCurrentLineNumber(c->parser);
    gConfigCount++;
}

static int isBlank(const char *s, int len) {
    for (int i = 0; i < len; i++) {
        if (s[i] != ' ' && s[i] != '\t' && s[i] != '\r' && s[i] != '\n') return 0;
    }
    return 1;
}

/* bytes of text, as the library's parser reads them, join the text since the last tag. */
static void addText(Check *c, const char *s, int len, int bytes) {
    const int max = c->inCdata ? CDATA_MAX : BUFFER_MAX;
    c->run += bytes;
    if (!isBlank(s, len)) c->runBlank = 0;
    if (c->run > max && !c->runRefused) {
        c->runRefused = 1;
        if (c->inCdata)
            report(c, "a CDATA section of more than %d characters: %s", CDATA_MAX, kRefused);
        else
            report(c, "more than %d characters of text between two tags (blanks count too): %s", BUFFER_MAX,
                   kRefused);
    }
}

/* A tag ends the text before it, which goes to the open element: it replaces a blank
 * text there, else is appended, cut at VALUE_MAX. */
static void endText(Check *c) {
    if (c->run > 0 && c->depth > 0 && !c->runRefused) {
        Level *l = &c->level[c->depth - 1];
        const int was = l->valueBlank ? 0 : l->value;
        l->value = was + (int)c->run;
        l->valueBlank = l->valueBlank && c->runBlank;
        if (was <= VALUE_MAX && l->value > VALUE_MAX)
            report(c, "the text of the %s of line %ld is cut to %d characters", describe(l->kind), l->line,
                   VALUE_MAX);
    }
    c->run = 0;
    c->runBlank = 1;
    c->runRefused = 0;
}

static void XMLCALL onText(void *user, const XML_Char *s, int len) {
    Check *c = user;
    /* Expat hands a line end on its own, "\r\n" as "\n"; the library keeps both bytes. */
    int bytes = len;
    if (len == 1 && s[0] == '\n' && XML_GetCurrentByteCount(c->parser) == 2) bytes = 2;
    addText(c, s, len, bytes);
}

/* Blanks before and after the top element reach only this handler, unchanged. */
static void XMLCALL onOther(void *user, const XML_Char *s, int len) {
    Check *c = user;
    if (c->depth == 0 && isBlank(s, len)) {
        addText(c, s, len, len);
    } else if (len > 0 && s[0] == '<') {
        endText(c);
    }
}

static void XMLCALL onComment(void *user, const XML_Char *data) {
    Check *c = user;
    (void)data;
    endText(c);
    if (XML_GetCurrentByteCount(c->parser) - 7 > COMMENT_MAX)
        report(c, "a comment of more than %d characters: %s", COMMENT_MAX, kRefused);
}

static void checkPi(Check *c) {
    endText(c);
    if (XML_GetCurrentByteCount(c->parser) - 4 > PI_MAX)
        report(c, "more than %d characters between <? and ?>: %s", PI_MAX, kRefused);
}

static void XMLCALL onPi(void *user, const XML_Char *target, const XML_Char *data) {
    (void)target, (void)data;
    checkPi(user);
}

static void XMLCALL onDecl(void *user, const XML_Char *version, const XML_Char *encoding, int standalone) {
    (void)version, (void)encoding, (void)standalone;
    checkPi(user);
}

static void XMLCALL onCdataStart(void *user) {
    Check *c = user;
    endText(c);
    c->inCdata = 1;
}

static void XMLCALL onCdataEnd(void *user) {
    Check *c = user;
    endText(c);
    c->inCdata = 0;
}

/* Attributes: what the library's parser refuses on any element; what the loader
 * ignores or cuts on the elements it reads. */
static void checkAttributes(Check *c, Kind kind, const XML_Char **attrs) {
    for (int i = 0; attrs[i]; i += 2) {
        const char *name = attrs[i], *value = attrs[i + 1];
        if (strlen(name) > BUFFER_MAX) {
            report(c, "an attribute name of more than %d characters: %s", BUFFER_MAX, kRefused);
            continue;
        }
        if (strlen(value) > BUFFER_MAX) {
            report(c, "attribute %s holds more than %d characters: %s", name, BUFFER_MAX, kRefused);
            continue;
        }
        if (kind == K_NONE || kind == K_MODEL || strcmp(name, "name") == 0) continue;
        if (kind != K_TABLE || strcmp(name, "attribute") != 0) {
            report(c, "attribute %s of <%s> is ignored: the library reads %s", name, describe(kind),
                   kind == K_TABLE ? "name and attribute" : "name only");
        } else if (strlen(value) > NAME_MAX_LEN) {
            report(c, "attribute %s=\"%s\" is cut to %d characters", name, value, NAME_MAX_LEN);
        }
    }
}

static void XMLCALL onStart(void *user, const XML_Char *name, const XML_Char **attrs) {
    Check *c = user;
    endText(c);
    const char *word = NULL;
    Kind kind = kindOf(name, &word);
    if (++c->elements == ELEMENTS_MAX + 1) report(c, "more than %d elements: %s", ELEMENTS_MAX, kRefused);
    /* A name the parser cuts is told of at the element's end, once it is known
     * whether a closing tag has to match it. */
    if (strlen(name) > BUFFER_MAX)
        report(c, "an element name of more than %d characters: %s", BUFFER_MAX, kRefused);
    if (c->depth == 0) kind = K_MODEL;
    if (kind != K_NONE && kind != K_MODEL && word && strcmp(name, word) != 0)
        report(c, "<%s> is taken for <%s> (names are matched by their beginning)", name, word);
    const int parent =
        kind == K_MODULE || kind == K_MODEL || kind == K_NONE ? 0 : enclosing(c, parentKind(kind));
    if (kind == K_NONE) {
        report(c, "<%s> is ignored: the library reads module, table, section, service and config", name);
    } else if (parent < 0) {
        report(c, "<%s> outside a <%s> is ignored", name, describe(parentKind(kind)));
        kind = K_NONE;
    }
    checkAttributes(c, kind, attrs);
    /* Elements are searched in the whole subtree of the one that holds them. */
    const int outerModule = kind == K_MODULE ? enclosing(c, K_MODULE) : -1;
    if (outerModule >= 0)
        report(c, "a module inside module \"%s\": that one takes its tables and services as well",
               c->level[outerModule].name);
    const int outerTable = kind == K_TABLE ? enclosing(c, K_TABLE) : -1;
    if (outerTable > parent)
        report(c, "a table inside table \"%s\": that one takes its sections as well",
               c->level[outerTable].name);
    if (kind == K_MODULE) {
        c->configs = 0;
        checkName(c, kind, attr(attrs, "name"));
        remember(c, kind, 0, attr(attrs, "name"));
    } else if (kind == K_TABLE || kind == K_SECTION || kind == K_SERVICE) {
        checkName(c, kind, attr(attrs, "name"));
        remember(c, kind, c->level[parent].opened, attr(attrs, "name"));
        const char *type = kind == K_TABLE ? attr(attrs, "attribute") : NULL;
        if (type && strcmp(type, "config") != 0 && strcmp(type, "dynamic") != 0)
            report(
                c,
                "table attribute \"%s\" is ignored: the table is a config table (\"config\" or \"dynamic\")",
                type);
    } else if (kind == K_CONFIG) {
        checkConfig(c, c->level[parent].name, attr(attrs, "name"));
    }
    if (c->depth == DEPTH_MAX) {
        report(c, "nested deeper than %d elements", DEPTH_MAX);
        XML_StopParser(c->parser, XML_FALSE);
        return;
    }
    Level *l = &c->level[c->depth++];
    memset(l, 0, sizeof *l);
    l->kind = kind;
    l->opened = c->elements;
    l->line = (long)XML_GetCurrentLineNumber(c->parser);
    l->valueBlank = 1;
    const char *own = attr(attrs, "name");
    snprintf(l->name, sizeof l->name, "%s", own ? own : "");
}

static void XMLCALL onEnd(void *user, const XML_Char *name) {
    Check *c = user;
    endText(c);
    if (c->depth == 0) return;
    const Level *l = &c->level[--c->depth];
    const size_t len = strlen(name);
    if (len <= ELEMENT_NAME_MAX || len > BUFFER_MAX) return;
    /* Expat counts no bytes for the end of an empty-element tag. */
    if (XML_GetCurrentByteCount(c->parser) == 0)
        reportAt(c, l->line, "element name \"%s\" is cut to %d characters", name, ELEMENT_NAME_MAX);
    else
        reportAt(c, l->line,
                 "element name \"%s\" is longer than %d characters, so its closing tag no longer "
                 "matches: %s",
                 name, ELEMENT_NAME_MAX, kRefused);
}

/* 0 nothing found, 1 problems found, 2 the file could not be read. */
static int checkFile(const char *file) {
    FILE *f = strcmp(file, "-") == 0 ? stdin : fopen(file, "r");
    if (!f) {
        fprintf(stderr, "kepcheck: %s: %s\n", file, strerror(errno));
        return 2;
    }
    Check c;
    memset(&c, 0, sizeof c);
    c.file = file;
    c.seen = calloc(SEEN_MAX, sizeof *c.seen);
    c.parser = XML_ParserCreate(NULL);
    if (!c.seen || !c.parser) {
        fprintf(stderr, "kepcheck: out of memory\n");
        free(c.seen);
        if (f != stdin) fclose(f);
        return 2;
    }
    XML_SetUserData(c.parser, &c);
    XML_SetElementHandler(c.parser, onStart, onEnd);
    XML_SetCharacterDataHandler(c.parser, onText);
    XML_SetCommentHandler(c.parser, onComment);
    XML_SetProcessingInstructionHandler(c.parser, onPi);
    XML_SetXmlDeclHandler(c.parser, onDecl);
    XML_SetCdataSectionHandler(c.parser, onCdataStart, onCdataEnd);
    XML_SetDefaultHandlerExpand(c.parser, onOther);
    c.runBlank = 1;
    char buf[8192];
    int done = 0, rc = 0;
    while (!done) {
        size_t n = fread(buf, 1, sizeof buf, f);
        done = n < sizeof buf;
        if (ferror(f)) {
            fprintf(stderr, "kepcheck: %s: %s\n", file, strerror(errno));
            rc = 2;
            break;
        }
        if (XML_Parse(c.parser, buf, (int)n, done) == XML_STATUS_ERROR) {
            if (XML_GetErrorCode(c.parser) != XML_ERROR_ABORTED)
                printf("%s:%lu: not well-formed XML: %s\n", file,
                       (unsigned long)XML_GetCurrentLineNumber(c.parser),
                       XML_ErrorString(XML_GetErrorCode(c.parser)));
            c.problems++;
            break;
        }
    }
    if (rc == 0 && c.problems == 0 && c.elements == 0) {
        printf("%s: no elements\n", file);
        c.problems++;
    }
    XML_ParserFree(c.parser);
    free(c.seen);
    if (f != stdin) fclose(f);
    return rc ? rc : c.problems ? 1 : 0;
}

int main(int argc, char **argv) {
    if (argc < 2 || strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0) {
        fprintf(argc < 2 ? stderr : stdout,
                "usage: kepcheck FILE...   (\"-\" reads standard input)\n"
                "  Checks model descriptions as the library reads them and says, each as FILE:LINE,\n"
                "  what it would ignore, take by a prefix of its name, cut or never reach (names\n"
                "  given twice), which configuration file two modules share (across all FILEs),\n"
                "  what makes its parser refuse a whole description, names with \"/\", \"..\" or\n"
                "  control characters, and XML errors.\n"
                "  Exit status: 0 nothing found, 1 problems found (XML errors too),\n"
                "  2 a file could not be read.\n");
        return argc < 2 ? 2 : 0;
    }
    int worst = 0;
    for (int i = 1; i < argc; i++) {
        int rc = checkFile(argv[i]);
        if (rc > worst) worst = rc;
    }
    return worst;
}
