#ifndef OSTREL_POSTGRES_BRIDGE_H
#define OSTREL_POSTGRES_BRIDGE_H

/*
 * The plain C interface between the PostgreSQL entry points (functions.c) and the C++ library
 * (bridge.cpp). It exists so that no C++ object is ever alive on a stack that PostgreSQL's error
 * handling unwinds with longjmp: every bridge function is noexcept, catches whatever the library
 * throws, destroys its C++ objects and reports the failure in an OstrelError, and only then does
 * the C side raise the SQL error. The C++ side includes no PostgreSQL header and calls no
 * PostgreSQL function except through the allocator it is handed, which returns NULL instead of
 * raising an error.
 */

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Memory for results, in the caller's memory context; NULL when none is left. */
typedef void *(*OstrelAlloc)(size_t size);

typedef enum OstrelFailure {
  OSTREL_OK = 0,
  OSTREL_BAD_DATA,     /* malformed record bytes (the library's SerializationError) */
  OSTREL_BAD_REQUEST,  /* an unknown field, a malformed path, a bad schema or JSON text */
  OSTREL_UNKNOWN_TYPE, /* the message type named by the caller is not in the backend's store */
  OSTREL_WRONG_TYPE,   /* the value exists but the SQL result type cannot hold its kind */
  OSTREL_OUT_OF_RANGE, /* the value does not fit the SQL result type */
  OSTREL_NO_MEMORY,
  OSTREL_INTERRUPTED, /* the interrupt check said to stop: the caller processes the interrupt */
  OSTREL_INTERNAL
} OstrelFailure;

/* Longer texts are cut at this size (with "..." at the end). */
#define OSTREL_ERROR_TEXT_SIZE 2048

typedef struct OstrelError {
  OstrelFailure failure;
  char text[OSTREL_ERROR_TEXT_SIZE];
} OstrelError;

/* Adds definitions of the extension's catalog (each the JSON manifest text of one type) to the
 * backend's store, making the store if there is none. The backend loads a type when a call first
 * names it, with the types it refers to: `wanted` receives the names that the added definitions
 * refer to and the store does not hold yet, for the caller to look up and add in turn. */
bool ostrel_store_add(const char *const *definitions, const size_t *sizes, size_t count,
                      OstrelAlloc alloc, char ***wanted, size_t *wantedCount, OstrelError *error);
/* Forgets the backend's store and its compiled paths; sites compiled before keep the store they
 * were compiled against alive. */
void ostrel_store_clear(void);

typedef enum OstrelSiteKind {
  OSTREL_SITE_VALUE,  /* a property path to one value: p_get*, p_has */
  OSTREL_SITE_EACH,   /* a property path to a repeated field or map: p_each */
  OSTREL_SITE_MESSAGE /* the message type alone: p_json, p_encode */
} OstrelSiteKind;

/* A message type and (but for OSTREL_SITE_MESSAGE) a property path, resolved against the backend's
 * store. Compiled sites are also kept per backend, so a path used by many statements is resolved
 * once. Text arguments are UTF-8. NULL on failure: OSTREL_UNKNOWN_TYPE when the store has no such
 * message type (the caller may reload the store and try again). */
typedef struct OstrelSite OstrelSite;
OstrelSite *ostrel_site_compile(OstrelSiteKind kind, const char *type, size_t typeSize,
                                const char *path, size_t pathSize, OstrelError *error);
void ostrel_site_release(OstrelSite *site);

typedef enum OstrelKind {
  OSTREL_ABSENT = 0,
  OSTREL_INT,    /* i: int32, int64, sint*, sfixed* */
  OSTREL_UINT,   /* u: uint32, uint64, fixed* */
  OSTREL_FLOAT,  /* d: a float, widened */
  OSTREL_DOUBLE, /* d */
  OSTREL_BOOL,   /* b */
  OSTREL_ENUM,   /* i: the number; data/size: the value name, data NULL when the enum has none */
  OSTREL_STRING, /* data/size: UTF-8 text */
  OSTREL_BYTES,  /* data/size */
  OSTREL_MESSAGE /* data/size: the encoded message, or its JSON text with OSTREL_MESSAGE_JSON */
} OstrelKind;

typedef struct OstrelValue {
  OstrelKind kind;
  /* The library's name of the value's kind ("int32", "uint64", "string", ...), for error texts;
   * NULL when absent. */
  const char *case_name;
  int64_t i;
  uint64_t u;
  double d;
  bool b;
  /* In the caller's memory. */
  const char *data;
  size_t size;
} OstrelValue;

/* Render message values as JSON text instead of handing out their bytes. */
#define OSTREL_MESSAGE_JSON 1
/* Read with protobuf's parse semantics (the library's ReadMode::exact) instead of taking the first
 * occurrence of each field on the path. */
#define OSTREL_EXACT 2

/* The value at the site's path in `record`; kind OSTREL_ABSENT when the record does not hold it. */
bool ostrel_read(const OstrelSite *site, const char *record, size_t size, int flags,
                 OstrelAlloc alloc, OstrelValue *value, OstrelError *error);

typedef struct OstrelElement {
  OstrelValue key; /* OSTREL_ABSENT but for map entries; then its text in data/size */
  OstrelValue value;
} OstrelElement;

/* A walk over the elements of the repeated field or map at an OSTREL_SITE_EACH site's path, in the
 * order of the bytes, one element per ostrel_each_next. The record must stay alive and unchanged
 * until the walk is released; the walk keeps the site's schemas alive. NULL on failure. */
typedef struct OstrelEach OstrelEach;
OstrelEach *ostrel_each_start(const OstrelSite *site, const char *record, size_t size,
                              OstrelError *error);
/* The next element (message values as JSON text) in *element, or *done when there is none (also
 * when the field is absent). */
bool ostrel_each_next(OstrelEach *each, OstrelAlloc alloc, OstrelElement *element, bool *done,
                      OstrelError *error);
void ostrel_each_release(OstrelEach *each);

/* The record rendered as JSON text (UTF-8, not NUL-terminated). */
bool ostrel_render(const OstrelSite *site, const char *record, size_t size, OstrelAlloc alloc,
                   char **json, size_t *jsonSize, OstrelError *error);

/* A record of the site's type built from JSON text. */
bool ostrel_encode(const OstrelSite *site, const char *json, size_t jsonSize, OstrelAlloc alloc,
                   char **record, size_t *size, OstrelError *error);

/* How p_set's value argument is read (the library's EditValue forms). */
typedef enum OstrelValueForm {
  OSTREL_VALUE_TEXT, /* text as a person types it: a string, an enum name, a number, JSON */
  OSTREL_VALUE_JSON, /* ProtoJSON of the value */
  OSTREL_VALUE_BYTES /* the bytes of a bytes field, or an encoded message */
} OstrelValueForm;

/* Record rewrites at an OSTREL_SITE_MESSAGE site: the new record in *result (allocated). ostrel_set
 * sets the field, element or map key `path` names; ostrel_clear removes a field or map key;
 * ostrel_merge is protobuf's MergeFrom of `other` into the record; ostrel_normalize the canonical
 * encoding. */
bool ostrel_set(const OstrelSite *site, const char *record, size_t size, const char *path,
                size_t pathSize, OstrelValueForm form, const char *value, size_t valueSize,
                OstrelAlloc alloc, char **result, size_t *resultSize, OstrelError *error);
bool ostrel_clear(const OstrelSite *site, const char *record, size_t size, const char *path,
                  size_t pathSize, OstrelAlloc alloc, char **result, size_t *resultSize,
                  OstrelError *error);
bool ostrel_merge(const OstrelSite *site, const char *record, size_t size, const char *other,
                  size_t otherSize, OstrelAlloc alloc, char **result, size_t *resultSize,
                  OstrelError *error);
bool ostrel_normalize(const OstrelSite *site, const char *record, size_t size, OstrelAlloc alloc,
                      char **result, size_t *resultSize, OstrelError *error);

typedef enum OstrelSchemaFormat {
  OSTREL_DESCRIPTOR_SET,
  OSTREL_MANIFEST,
  OSTREL_PROTO
} OstrelSchemaFormat;

typedef struct OstrelDefinition {
  const char *name; /* fully qualified, NUL-terminated */
  bool isMessage;
  const char *text; /* the JSON manifest of this one type, NUL-terminated */
} OstrelDefinition;

/* Splits a schema in one of the formats into one definition per message and enum type, each in a
 * canonical text: two definitions of a type are the same exactly when their texts are equal. */
bool ostrel_definitions(OstrelSchemaFormat format, const char *input, size_t size,
                        OstrelAlloc alloc, OstrelDefinition **definitions, size_t *count,
                        OstrelError *error);

/* The type names that fields of the definitions refer to and that the definitions themselves do
 * not define. */
bool ostrel_referenced_names(const char *const *definitions, const size_t *sizes, size_t count,
                             OstrelAlloc alloc, char ***names, size_t *nameCount,
                             OstrelError *error);

/* Checks that every type of `added` can be created in a store of `added` and `context` (the
 * registered definitions they refer to), with every type one of its fields refers to. */
bool ostrel_check_definitions(const char *const *added, const size_t *addedSizes, size_t addedCount,
                              const char *const *context, const size_t *contextSizes,
                              size_t contextCount, OstrelError *error);

/* A value in Confluent's envelope, split: the schema id (hasId) or else the schema GUID, the
 * message-index path (at least one index, in memory from `alloc`) and where the message starts. */
typedef struct OstrelConfluent {
  bool hasId;
  int32_t id;
  unsigned char guid[16];
  int32_t *indexes;
  size_t indexCount;
  size_t payloadOffset;
} OstrelConfluent;

/* Splits `data`; `unsignedIndexes` reads the path as older Python serializers write it. A value
 * not in the envelope fails with OSTREL_BAD_DATA. */
bool ostrel_confluent_split(const char *data, size_t size, bool unsignedIndexes, OstrelAlloc alloc,
                            OstrelConfluent *out, OstrelError *error);

/* Whether the backend has an interrupt to process (a cancel request, a timeout, a shutdown). Only
 * reads the server's flags: it must never raise an error. */
typedef bool (*OstrelInterruptPending)(void);

/* Routes the library's diagnostics to the server log (stderr), and makes every long loop of the
 * library and the bridge stop with OSTREL_INTERRUPTED once `pending` says so. */
void ostrel_bridge_init(OstrelInterruptPending pending);

#ifdef __cplusplus
}
#endif

#endif
