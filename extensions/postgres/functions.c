/*
 * The SQL functions of the ostrel extension: argument handling, result construction, caching and
 * error reporting on PostgreSQL's side. All work on records and schemas happens behind bridge.h,
 * which never lets a C++ exception out and never raises a PostgreSQL error, so every ereport here
 * runs with no C++ object alive on the stack.
 *
 * Caching: each backend keeps one schema store holding the types its calls have named, each read
 * from the extension's catalog table (one index lookup) the first time a call names it, together
 * with the types it refers to. Registered definitions never change and are never removed (the
 * table refuses updates and deletes), so a cached type is never wrong; a name the table does not
 * hold costs one lookup and is refused. The store is dropped when the catalog table itself is
 * invalidated (DROP EXTENSION, for one) and at the end of a transaction that registered
 * definitions, since a rollback takes them back. Each call site (fn_extra) keeps the path it
 * resolved, with the store it was resolved against, for as long as the query runs.
 *
 * Interrupts: the bridge's and the library's long loops ask interrupt_pending() and stop with
 * OSTREL_INTERRUPTED; raise_failure then processes the interrupt here, once the C++ frames are
 * gone, so that a cancel request or statement_timeout ends a long call within moments.
 */
#include "postgres.h"

#include <math.h>

#include "access/xact.h"
#include "catalog/pg_type.h"
#include "common/base64.h"
#include "common/jsonapi.h"
#include "executor/spi.h"
#include "fmgr.h"
#include "funcapi.h"
#include "mb/pg_wchar.h"
#include "miscadmin.h"
#include "utils/array.h"
#include "utils/typcache.h"
#include "utils/uuid.h"
#include "utils/builtins.h"
#include "utils/float.h"
#include "utils/fmgrprotos.h"
#include "utils/inval.h"
#include "utils/jsonb.h"
#include "utils/jsonfuncs.h"
#include "utils/lsyscache.h"
#include "utils/memutils.h"
#include "utils/numeric.h"
#include "utils/snapmgr.h"

#include "bridge.h"

PG_MODULE_MAGIC;

void _PG_init(void);

/* The catalog table the backend's store was built from, and whether it must be read again. */
static Oid catalog_relid = InvalidOid;
static bool store_stale = true;
/* This transaction registered definitions: drop the store when it ends, however it ends. */
static bool registered_in_transaction = false;

static void *
alloc_in_current_context(size_t size)
{
	if (!AllocSizeIsValid(size))
		return NULL;
	return palloc_extended(size, MCXT_ALLOC_NO_OOM);
}

static void raise_failure(const OstrelError *error) pg_attribute_noreturn();

static void
raise_failure(const OstrelError *error)
{
	int			code;

	/* A cancel request or a timeout comes before whatever the call was doing when it stopped. */
	CHECK_FOR_INTERRUPTS();
	switch (error->failure)
	{
		case OSTREL_BAD_DATA:
			code = ERRCODE_INVALID_BINARY_REPRESENTATION;
			break;
		case OSTREL_BAD_REQUEST:
		case OSTREL_UNKNOWN_TYPE:
			code = ERRCODE_INVALID_PARAMETER_VALUE;
			break;
		case OSTREL_WRONG_TYPE:
			code = ERRCODE_DATATYPE_MISMATCH;
			break;
		case OSTREL_OUT_OF_RANGE:
			code = ERRCODE_NUMERIC_VALUE_OUT_OF_RANGE;
			break;
		case OSTREL_NO_MEMORY:
			code = ERRCODE_OUT_OF_MEMORY;
			break;
		case OSTREL_INTERRUPTED:
			/* Only reported for an interrupt that ends the statement, processed above. */
			code = ERRCODE_QUERY_CANCELED;
			break;
		default:
			code = ERRCODE_INTERNAL_ERROR;
			break;
	}
	ereport(ERROR, (errcode(code), errmsg("%s", error->text)));
}

/* Whether an interrupt that ends the statement (a cancel request, statement_timeout, a shutdown)
 * is pending and may be processed now. Reads flags only, so the C++ side may call it. */
static bool
interrupt_pending(void)
{
	return (QueryCancelPending || ProcDiePending) && INTERRUPTS_CAN_BE_PROCESSED();
}

/* Text the library produced (UTF-8) as text of the database encoding. */
static char *
utf8_to_server(const char *data, size_t size)
{
	return pg_any_to_server(data, (int) size, PG_UTF8);
}

/*
 * A string the record holds, for a result of type `target` (text or jsonb), which cannot hold a
 * NUL character: such a string is refused with the function's own error rather than the
 * conversion's. `path` is the path argument, or NULL for the whole record.
 */
static void refuse_nul(FunctionCallInfo fcinfo, const char *path,
					   const char *target) pg_attribute_noreturn();

static void
refuse_nul(FunctionCallInfo fcinfo, const char *path, const char *target)
{
	const char *name = get_func_name(fcinfo->flinfo->fn_oid);

	if (path)
		ereport(ERROR,
				(errcode(ERRCODE_DATATYPE_MISMATCH),
				 errmsg("%s: a string at \"%s\" holds a NUL character, which %s cannot hold",
						name, path, target),
				 errhint("p_get_bytea returns the bytes of a string.")));
	ereport(ERROR,
			(errcode(ERRCODE_DATATYPE_MISMATCH),
			 errmsg("%s: a string in the record holds a NUL character, which %s cannot hold",
					name, target)));
}

static char *
path_argument(FunctionCallInfo fcinfo)
{
	return text_to_cstring(PG_GETARG_TEXT_PP(2));
}

/* A string value of the record as text of the database encoding. */
static char *
string_to_server(FunctionCallInfo fcinfo, const char *data, size_t size, const char *target)
{
	if (memchr(data, '\0', size) != NULL)
		refuse_nul(fcinfo, path_argument(fcinfo), target);
	return utf8_to_server(data, size);
}

/* Whether JSON text holds the escape of a NUL character, which jsonb refuses. */
static bool
json_holds_nul(const char *json, size_t size)
{
	for (size_t i = 0; i + 1 < size; ++i)
	{
		if (json[i] != '\\')
			continue;
		if (json[i + 1] == 'u' && i + 6 <= size && memcmp(json + i + 2, "0000", 4) == 0)
			return true;
		++i;					/* the escaped character, a backslash perhaps */
	}
	return false;
}

/*
 * The jsonb made from JSON text as jsonb_in makes it, but polling for cancel and
 * statement_timeout at every value: jsonb_in does not, and converting the text of a large record
 * can take several times as long as rendering it.
 */
typedef struct JsonbBuild
{
	JsonbParseState *parse;
	JsonbValue *result;
} JsonbBuild;

static void
jsonb_push(JsonbBuild *build, JsonbIteratorToken token, JsonbValue *value)
{
	CHECK_FOR_INTERRUPTS();
	build->result = pushJsonbValue(&build->parse, token, value);
}

static void
jsonb_string(JsonbValue *out, char *text)
{
	size_t		length = strlen(text);

	if (length > JENTRY_OFFLENMASK)
		ereport(ERROR, (errcode(ERRCODE_PROGRAM_LIMIT_EXCEEDED),
						errmsg("string too long to represent as jsonb string")));
	out->type = jbvString;
	out->val.string.len = (int) length;
	out->val.string.val = text;
}

static void
jsonb_object_start(void *state)
{
	jsonb_push(state, WJB_BEGIN_OBJECT, NULL);
}

static void
jsonb_object_end(void *state)
{
	jsonb_push(state, WJB_END_OBJECT, NULL);
}

static void
jsonb_array_start(void *state)
{
	jsonb_push(state, WJB_BEGIN_ARRAY, NULL);
}

static void
jsonb_array_end(void *state)
{
	jsonb_push(state, WJB_END_ARRAY, NULL);
}

static void
jsonb_key(void *state, char *name, bool isnull)
{
	JsonbValue	key;

	jsonb_string(&key, name);
	jsonb_push(state, WJB_KEY, &key);
}

static void
jsonb_scalar(void *state, char *token, JsonTokenType type)
{
	JsonbBuild *build = state;
	JsonbValue	value;

	switch (type)
	{
		case JSON_TOKEN_STRING:
			jsonb_string(&value, token);
			break;
		case JSON_TOKEN_NUMBER:
			value.type = jbvNumeric;
			value.val.numeric = DatumGetNumeric(DirectFunctionCall3(numeric_in,
																	CStringGetDatum(token),
																	ObjectIdGetDatum(InvalidOid),
																	Int32GetDatum(-1)));
			break;
		case JSON_TOKEN_TRUE:
		case JSON_TOKEN_FALSE:
			value.type = jbvBool;
			value.val.boolean = type == JSON_TOKEN_TRUE;
			break;
		default:
			value.type = jbvNull;
			break;
	}
	if (build->parse == NULL)
	{
		/* A scalar alone is stored as a one-element raw scalar array. */
		JsonbValue	array;

		array.type = jbvArray;
		array.val.array.rawScalar = true;
		array.val.array.nElems = 1;
		jsonb_push(build, WJB_BEGIN_ARRAY, &array);
		jsonb_push(build, WJB_ELEM, &value);
		jsonb_push(build, WJB_END_ARRAY, NULL);
	}
	else
		jsonb_push(build, build->parse->contVal.type == jbvArray ? WJB_ELEM : WJB_VALUE, &value);
}

/* JSON text the library rendered as jsonb; `path` as for refuse_nul. */
static Datum
json_to_jsonb(FunctionCallInfo fcinfo, const char *json, size_t size, const char *path)
{
	char	   *text;
	JsonbBuild	build = {NULL, NULL};
	JsonSemAction actions = {0};

	if (json_holds_nul(json, size))
		refuse_nul(fcinfo, path, "jsonb");
	text = utf8_to_server(json, size);
	actions.semstate = &build;
	actions.object_start = jsonb_object_start;
	actions.object_end = jsonb_object_end;
	actions.array_start = jsonb_array_start;
	actions.array_end = jsonb_array_end;
	actions.object_field_start = jsonb_key;
	actions.scalar = jsonb_scalar;
	pg_parse_json_or_ereport(makeJsonLexContextCstringLen(text, (int) strlen(text),
														  GetDatabaseEncoding(), true),
							 &actions);
	return JsonbPGetDatum(JsonbValueToJsonb(build.result));
}

/* A text argument as UTF-8 for the library; *size receives its length. */
static const char *
text_to_utf8(text *value, size_t *size)
{
	const char *data = VARDATA_ANY(value);
	int			length = VARSIZE_ANY_EXHDR(value);
	char	   *converted;

	if (GetDatabaseEncoding() == PG_UTF8 || GetDatabaseEncoding() == PG_SQL_ASCII)
	{
		*size = (size_t) length;
		return data;
	}
	converted = pg_server_to_any(data, length, PG_UTF8);
	*size = strlen(converted);
	return converted;
}

static void
relcache_invalidated(Datum arg, Oid relid)
{
	if (relid == InvalidOid || relid == catalog_relid)
		store_stale = true;
}

static void
transaction_ended(XactEvent event, void *arg)
{
	if (!registered_in_transaction)
		return;
	switch (event)
	{
		case XACT_EVENT_COMMIT:
		case XACT_EVENT_PARALLEL_COMMIT:
		case XACT_EVENT_ABORT:
		case XACT_EVENT_PARALLEL_ABORT:
		case XACT_EVENT_PREPARE:
			store_stale = true;
			registered_in_transaction = false;
			break;
		default:
			break;
	}
}

static void
subtransaction_ended(SubXactEvent event, SubTransactionId subid, SubTransactionId parent,
					 void *arg)
{
	if (registered_in_transaction && event == SUBXACT_EVENT_ABORT_SUB)
		store_stale = true;
}

void
_PG_init(void)
{
	ostrel_bridge_init(interrupt_pending);
	CacheRegisterRelcacheCallback(relcache_invalidated, (Datum) 0);
	RegisterXactCallback(transaction_ended, NULL);
	RegisterSubXactCallback(subtransaction_ended, NULL);
}

/* A text[] of UTF-8 names, in the database encoding. */
static Datum
name_array(char **names, size_t count)
{
	Datum	   *elements = palloc(sizeof(Datum) * (count + 1));

	for (size_t i = 0; i < count; ++i)
		elements[i] = CStringGetTextDatum(utf8_to_server(names[i], strlen(names[i])));
	return PointerGetDatum(construct_array(elements, (int) count, TEXTOID, -1, false,
										   TYPALIGN_INT));
}

/*
 * The definitions of the catalog table in `namespace` for these names (text[]), each as UTF-8, in
 * memory of the caller's context. Reads with the caller's snapshot, so that it also works in
 * parallel workers, where no new snapshot may be taken.
 */
static uint64
read_definitions(Oid namespace, Datum names, const char ***definitions, size_t **sizes)
{
	Oid			relid = get_relname_relid("ostrel_schemas", namespace);
	MemoryContext caller = CurrentMemoryContext;
	char	   *query;
	bool		pushed = false;
	Oid			argtypes[1] = {TEXTARRAYOID};
	Datum		values[1] = {names};
	uint64		count;

	if (!OidIsValid(relid))
		ereport(ERROR, (errcode(ERRCODE_UNDEFINED_TABLE),
						errmsg("the ostrel catalog table ostrel_schemas is missing")));
	catalog_relid = relid;
	query = psprintf("SELECT definition FROM %s.ostrel_schemas WHERE name = ANY ($1)",
					 quote_identifier(get_namespace_name(namespace)));
	if (!ActiveSnapshotSet())
	{
		PushActiveSnapshot(GetTransactionSnapshot());
		pushed = true;
	}
	if (SPI_connect() != SPI_OK_CONNECT)
		elog(ERROR, "SPI_connect failed");
	if (SPI_execute_with_args(query, 1, argtypes, values, NULL, true, 0) != SPI_OK_SELECT)
		elog(ERROR, "cannot read the ostrel catalog");
	count = SPI_processed;
	*definitions = MemoryContextAlloc(caller, sizeof(char *) * (count + 1));
	*sizes = MemoryContextAlloc(caller, sizeof(size_t) * (count + 1));
	for (uint64 i = 0; i < count; ++i)
	{
		bool		isnull;
		Datum		value = SPI_getbinval(SPI_tuptable->vals[i], SPI_tuptable->tupdesc, 1,
										  &isnull);
		text	   *definition = DatumGetTextPP(value);
		const char *data = VARDATA_ANY(definition);
		int			size = VARSIZE_ANY_EXHDR(definition);
		MemoryContext spi = MemoryContextSwitchTo(caller);
		char	   *utf8 = pg_server_to_any(data, size, PG_UTF8);

		if (utf8 == data)
			utf8 = pnstrdup(data, size);
		MemoryContextSwitchTo(spi);
		(*definitions)[i] = utf8;
		(*sizes)[i] = strlen(utf8);
	}
	SPI_finish();
	if (pushed)
		PopActiveSnapshot();
	return count;
}

/*
 * Adds `type` (UTF-8) to the backend's store from the catalog table, with every type it refers
 * to, directly or not, that the store does not hold yet: one lookup by name for each level of
 * references. False when the table has no such type; then nothing is read but that lookup.
 */
static bool
load_type(Oid namespace, const char *type, size_t type_size)
{
	char	   *first = pnstrdup(type, type_size);
	char	  **wanted = &first;
	size_t		wanted_count = 1;
	bool		found = false;
	OstrelError error;

	while (wanted_count > 0)
	{
		const char **definitions;
		size_t	   *sizes;
		uint64		count = read_definitions(namespace, name_array(wanted, wanted_count),
											 &definitions, &sizes);

		if (count == 0)
		{
			if (!found)
				return false;
			/* The rest are built-in types, which every store holds. */
			break;
		}
		found = true;
		if (!ostrel_store_add(definitions, sizes, (size_t) count, alloc_in_current_context,
							  &wanted, &wanted_count, &error))
			raise_failure(&error);
	}
	return true;
}

static OstrelSite *
compile_site(FunctionCallInfo fcinfo, OstrelSiteKind kind, text *type, text *path)
{
	Oid			namespace = get_func_namespace(fcinfo->flinfo->fn_oid);
	size_t		type_size;
	size_t		path_size = 0;
	const char *type_text = text_to_utf8(type, &type_size);
	const char *path_text = path ? text_to_utf8(path, &path_size) : NULL;
	OstrelError error;
	OstrelSite *site;

	if (store_stale)
	{
		ostrel_store_clear();
		store_stale = false;
	}
	site = ostrel_site_compile(kind, type_text, type_size, path_text, path_size, &error);
	if (!site && error.failure == OSTREL_UNKNOWN_TYPE &&
		load_type(namespace, type_text, type_size))
		site = ostrel_site_compile(kind, type_text, type_size, path_text, path_size, &error);
	if (!site)
		raise_failure(&error);
	return site;
}

/* What a call site keeps in fn_extra: the compiled site and the arguments it was compiled for. */
typedef struct CallSite
{
	OstrelSite *site;
	text	   *type;
	text	   *path;
	MemoryContextCallback release;
} CallSite;

static void
release_call_site(void *arg)
{
	CallSite   *call_site = (CallSite *) arg;

	if (call_site->site)
		ostrel_site_release(call_site->site);
	call_site->site = NULL;
}

static bool
same_text(const text *a, const text *b)
{
	return VARSIZE_ANY_EXHDR(a) == VARSIZE_ANY_EXHDR(b) &&
		memcmp(VARDATA_ANY(a), VARDATA_ANY(b), VARSIZE_ANY_EXHDR(a)) == 0;
}

static text *
copy_text(MemoryContext context, const text *value)
{
	size_t		size = VARSIZE_ANY_EXHDR(value);
	text	   *copy = MemoryContextAlloc(context, size + VARHDRSZ);

	SET_VARSIZE(copy, size + VARHDRSZ);
	memcpy(VARDATA(copy), VARDATA_ANY(value), size);
	return copy;
}

/*
 * The compiled site for these arguments: the one kept in fn_extra when the arguments are those it
 * was compiled for (they nearly always are constants), else a new one, kept in their place. The
 * site is released when the call site's memory context goes away, whether the query ends or fails.
 */
static OstrelSite *
call_site(FunctionCallInfo fcinfo, OstrelSiteKind kind, text *type, text *path)
{
	FmgrInfo   *flinfo = fcinfo->flinfo;
	CallSite   *cached = flinfo ? (CallSite *) flinfo->fn_extra : NULL;
	text	   *type_copy;
	text	   *path_copy;

	if (flinfo == NULL)
		ereport(ERROR, (errcode(ERRCODE_FEATURE_NOT_SUPPORTED),
						errmsg("ostrel functions must be called through the function manager")));
	if (cached && cached->site && same_text(cached->type, type) &&
		(path == NULL || same_text(cached->path, path)))
		return cached->site;
	if (!cached)
	{
		cached = MemoryContextAllocZero(flinfo->fn_mcxt, sizeof(CallSite));
		cached->release.func = release_call_site;
		cached->release.arg = cached;
		MemoryContextRegisterResetCallback(flinfo->fn_mcxt, &cached->release);
		flinfo->fn_extra = cached;
	}
	release_call_site(cached);
	if (cached->type)
		pfree(cached->type);
	if (cached->path)
		pfree(cached->path);
	cached->type = NULL;
	cached->path = NULL;
	type_copy = copy_text(flinfo->fn_mcxt, type);
	path_copy = path ? copy_text(flinfo->fn_mcxt, path) : NULL;
	cached->type = type_copy;
	cached->path = path_copy;
	cached->site = compile_site(fcinfo, kind, type, path);
	return cached->site;
}

static void wrong_type(FunctionCallInfo fcinfo, const OstrelValue *value, const char *wanted,
					   const char *hint) pg_attribute_noreturn();

/* A value of another kind than the function returns: the library's error for a typed read of the
 * wrong kind, `wanted` naming the kind the function reads. */
static void
wrong_type(FunctionCallInfo fcinfo, const OstrelValue *value, const char *wanted, const char *hint)
{
	ereport(ERROR,
			(errcode(ERRCODE_DATATYPE_MISMATCH),
			 errmsg("unexpectedType: expected %s value, found %s", wanted, value->case_name),
			 errdetail("%s reads \"%s\".", get_func_name(fcinfo->flinfo->fn_oid),
					   text_to_cstring(PG_GETARG_TEXT_PP(2))),
			 hint ? errhint("%s", hint) : 0));
}

/* Reads the value at the path argument; false when the record does not hold it. */
static bool
read_value(FunctionCallInfo fcinfo, int flags, OstrelValue *value)
{
	bytea	   *record = PG_GETARG_BYTEA_PP(0);
	text	   *type = PG_GETARG_TEXT_PP(1);
	text	   *path = PG_GETARG_TEXT_PP(2);
	OstrelSite *site = call_site(fcinfo, OSTREL_SITE_VALUE, type, path);
	OstrelError error;

	if (PG_NARGS() > 3 && PG_GETARG_BOOL(3))
		flags |= OSTREL_EXACT;
	if (!ostrel_read(site, VARDATA_ANY(record), VARSIZE_ANY_EXHDR(record), flags,
					 alloc_in_current_context, value, &error))
		raise_failure(&error);
	return value->kind != OSTREL_ABSENT;
}

static Datum
uint64_numeric(uint64 value)
{
	char		digits[24];

	snprintf(digits, sizeof(digits), UINT64_FORMAT, value);
	return DirectFunctionCall3(numeric_in, CStringGetDatum(digits), ObjectIdGetDatum(InvalidOid),
							   Int32GetDatum(-1));
}

static char *
base64_text(const char *data, size_t size, int *length)
{
	int			encoded_size;
	char	   *encoded;

	if (size > (size_t) (MaxAllocSize / 4 * 3 - 4))
		ereport(ERROR, (errcode(ERRCODE_PROGRAM_LIMIT_EXCEEDED),
						errmsg("bytes value too long to encode")));
	encoded_size = pg_b64_enc_len((int) size);
	encoded = palloc(encoded_size + 1);
	*length = pg_b64_encode(data, (int) size, encoded, encoded_size);
	if (*length < 0)
		elog(ERROR, "base64 encoding failed");
	encoded[*length] = '\0';
	return encoded;
}

static void
string_value(JsonbValue *out, char *data, int length)
{
	out->type = jbvString;
	out->val.string.val = data;
	out->val.string.len = length;
}

/* A value as jsonb: numbers as numbers (64-bit integers too: jsonb keeps them exact), non-finite
 * floats, bytes (base64) and enum names as strings, messages as objects. */
static Datum
value_jsonb(FunctionCallInfo fcinfo, const OstrelValue *value)
{
	JsonbValue	scalar;

	switch (value->kind)
	{
		case OSTREL_INT:
			scalar.type = jbvNumeric;
			scalar.val.numeric = int64_to_numeric(value->i);
			break;
		case OSTREL_UINT:
			scalar.type = jbvNumeric;
			scalar.val.numeric = DatumGetNumeric(uint64_numeric(value->u));
			break;
		case OSTREL_FLOAT:
		case OSTREL_DOUBLE:
			if (isnan(value->d))
				string_value(&scalar, "NaN", 3);
			else if (isinf(value->d))
				string_value(&scalar, value->d > 0 ? "Infinity" : "-Infinity",
							 value->d > 0 ? 8 : 9);
			else
			{
				scalar.type = jbvNumeric;
				scalar.val.numeric = value->kind == OSTREL_FLOAT
					? DatumGetNumeric(DirectFunctionCall1(float4_numeric,
														  Float4GetDatum((float4) value->d)))
					: DatumGetNumeric(DirectFunctionCall1(float8_numeric,
														  Float8GetDatum(value->d)));
			}
			break;
		case OSTREL_BOOL:
			scalar.type = jbvBool;
			scalar.val.boolean = value->b;
			break;
		case OSTREL_ENUM:
			if (value->data)
			{
				char	   *name = utf8_to_server(value->data, value->size);

				string_value(&scalar, name, strlen(name));
			}
			else
			{
				scalar.type = jbvNumeric;
				scalar.val.numeric = int64_to_numeric(value->i);
			}
			break;
		case OSTREL_STRING:
			{
				char	   *string = string_to_server(fcinfo, value->data, value->size, "jsonb");

				string_value(&scalar, string,
							 string == value->data ? (int) value->size : (int) strlen(string));
				break;
			}
		case OSTREL_BYTES:
			{
				int			length;
				char	   *encoded = base64_text(value->data, value->size, &length);

				string_value(&scalar, encoded, length);
				break;
			}
		case OSTREL_MESSAGE:
			return json_to_jsonb(fcinfo, value->data, value->size, path_argument(fcinfo));
		default:
			elog(ERROR, "no jsonb for an absent value");
	}
	return JsonbPGetDatum(JsonbValueToJsonb(&scalar));
}

PG_FUNCTION_INFO_V1(ostrel_p_get);
Datum
ostrel_p_get(PG_FUNCTION_ARGS)
{
	OstrelValue value;

	if (!read_value(fcinfo, OSTREL_MESSAGE_JSON, &value))
		PG_RETURN_NULL();
	return value_jsonb(fcinfo, &value);
}

PG_FUNCTION_INFO_V1(ostrel_p_get_bigint);
Datum
ostrel_p_get_bigint(PG_FUNCTION_ARGS)
{
	OstrelValue value;

	if (!read_value(fcinfo, 0, &value))
		PG_RETURN_NULL();
	switch (value.kind)
	{
		case OSTREL_INT:
		case OSTREL_ENUM:
			PG_RETURN_INT64(value.i);
		case OSTREL_UINT:
			if (value.u > (uint64) PG_INT64_MAX)
				ereport(ERROR, (errcode(ERRCODE_NUMERIC_VALUE_OUT_OF_RANGE),
								errmsg("p_get_bigint: %s at \"%s\" is out of range for type bigint",
									   psprintf(UINT64_FORMAT, value.u),
									   text_to_cstring(PG_GETARG_TEXT_PP(2)))));
			PG_RETURN_INT64((int64) value.u);
		default:
			wrong_type(fcinfo, &value, "int64", "Try p_get_double or p_get_text.");
	}
}

PG_FUNCTION_INFO_V1(ostrel_p_get_numeric);
Datum
ostrel_p_get_numeric(PG_FUNCTION_ARGS)
{
	OstrelValue value;

	if (!read_value(fcinfo, 0, &value))
		PG_RETURN_NULL();
	switch (value.kind)
	{
		case OSTREL_INT:
		case OSTREL_ENUM:
			PG_RETURN_NUMERIC(int64_to_numeric(value.i));
		case OSTREL_UINT:
			return uint64_numeric(value.u);
		case OSTREL_FLOAT:
			return DirectFunctionCall1(float4_numeric, Float4GetDatum((float4) value.d));
		case OSTREL_DOUBLE:
			return DirectFunctionCall1(float8_numeric, Float8GetDatum(value.d));
		default:
			wrong_type(fcinfo, &value, "uint64", "Try p_get_text.");
	}
}

PG_FUNCTION_INFO_V1(ostrel_p_get_double);
Datum
ostrel_p_get_double(PG_FUNCTION_ARGS)
{
	OstrelValue value;

	if (!read_value(fcinfo, 0, &value))
		PG_RETURN_NULL();
	switch (value.kind)
	{
		case OSTREL_INT:
			PG_RETURN_FLOAT8((float8) value.i);
		case OSTREL_UINT:
			PG_RETURN_FLOAT8((float8) value.u);
		case OSTREL_FLOAT:
		case OSTREL_DOUBLE:
			PG_RETURN_FLOAT8(value.d);
		default:
			wrong_type(fcinfo, &value, "double", "Try p_get_text.");
	}
}

PG_FUNCTION_INFO_V1(ostrel_p_get_bool);
Datum
ostrel_p_get_bool(PG_FUNCTION_ARGS)
{
	OstrelValue value;

	if (!read_value(fcinfo, 0, &value))
		PG_RETURN_NULL();
	if (value.kind != OSTREL_BOOL)
		wrong_type(fcinfo, &value, "bool", NULL);
	PG_RETURN_BOOL(value.b);
}

PG_FUNCTION_INFO_V1(ostrel_p_get_text);
Datum
ostrel_p_get_text(PG_FUNCTION_ARGS)
{
	OstrelValue value;

	if (!read_value(fcinfo, OSTREL_MESSAGE_JSON, &value))
		PG_RETURN_NULL();
	switch (value.kind)
	{
		case OSTREL_STRING:
			PG_RETURN_TEXT_P(cstring_to_text(string_to_server(fcinfo, value.data, value.size,
															  "text")));
		case OSTREL_MESSAGE:
			/* JSON text, where a NUL character is an escape. */
			PG_RETURN_TEXT_P(cstring_to_text(utf8_to_server(value.data, value.size)));
		case OSTREL_ENUM:
			if (value.data)
				PG_RETURN_TEXT_P(cstring_to_text(utf8_to_server(value.data, value.size)));
			PG_RETURN_TEXT_P(cstring_to_text(psprintf(INT64_FORMAT, value.i)));
		case OSTREL_INT:
			PG_RETURN_TEXT_P(cstring_to_text(psprintf(INT64_FORMAT, value.i)));
		case OSTREL_UINT:
			PG_RETURN_TEXT_P(cstring_to_text(psprintf(UINT64_FORMAT, value.u)));
		case OSTREL_FLOAT:
			return DirectFunctionCall1(textin, DirectFunctionCall1(float4out,
																   Float4GetDatum((float4) value.d)));
		case OSTREL_DOUBLE:
			return DirectFunctionCall1(textin, DirectFunctionCall1(float8out,
																   Float8GetDatum(value.d)));
		case OSTREL_BOOL:
			PG_RETURN_TEXT_P(cstring_to_text(value.b ? "true" : "false"));
		case OSTREL_BYTES:
			{
				int			length;
				char	   *encoded = base64_text(value.data, value.size, &length);

				PG_RETURN_TEXT_P(cstring_to_text_with_len(encoded, length));
			}
		default:
			elog(ERROR, "unexpected value kind");
	}
}

PG_FUNCTION_INFO_V1(ostrel_p_get_bytea);
Datum
ostrel_p_get_bytea(PG_FUNCTION_ARGS)
{
	OstrelValue value;
	bytea	   *result;

	if (!read_value(fcinfo, 0, &value))
		PG_RETURN_NULL();
	if (value.kind != OSTREL_BYTES && value.kind != OSTREL_STRING && value.kind != OSTREL_MESSAGE)
		wrong_type(fcinfo, &value, "bytes", NULL);
	result = palloc(value.size + VARHDRSZ);
	SET_VARSIZE(result, value.size + VARHDRSZ);
	memcpy(VARDATA(result), value.data, value.size);
	PG_RETURN_BYTEA_P(result);
}

PG_FUNCTION_INFO_V1(ostrel_p_has);
Datum
ostrel_p_has(PG_FUNCTION_ARGS)
{
	OstrelValue value;

	PG_RETURN_BOOL(read_value(fcinfo, 0, &value));
}

/* What p_each keeps from its first call to its last: its compiled site (fn_extra is the SRF
 * machinery's, so the site is the backend's cached one rather than the call site's) and the walk
 * over the record's elements. */
typedef struct EachState
{
	OstrelSite *site;
	OstrelEach *each;
	int32		next_index;
	MemoryContextCallback release;
} EachState;

static void
release_each(void *arg)
{
	EachState  *state = (EachState *) arg;

	if (state->each)
		ostrel_each_release(state->each);
	state->each = NULL;
	if (state->site)
		ostrel_site_release(state->site);
	state->site = NULL;
}

/*
 * p_each returns one row per call, reading the next element only when it is asked for, so a
 * record of millions of elements never has them all in memory at once. The walk is released with
 * the call's memory, whether the rows run out, the query stops early or it fails.
 */
PG_FUNCTION_INFO_V1(ostrel_p_each);
Datum
ostrel_p_each(PG_FUNCTION_ARGS)
{
	FuncCallContext *funcctx;
	EachState  *state;
	OstrelElement element;
	bool		done;
	OstrelError error;
	Datum		values[3];
	bool		nulls[3] = {false, false, false};

	if (SRF_IS_FIRSTCALL())
	{
		MemoryContext oldcontext;
		TupleDesc	tupdesc;
		bytea	   *record;

		funcctx = SRF_FIRSTCALL_INIT();
		oldcontext = MemoryContextSwitchTo(funcctx->multi_call_memory_ctx);
		if (get_call_result_type(fcinfo, NULL, &tupdesc) != TYPEFUNC_COMPOSITE)
			elog(ERROR, "p_each must return a composite type");
		funcctx->tuple_desc = BlessTupleDesc(tupdesc);
		/* The walk borrows the record's bytes until its last call. */
		record = PG_GETARG_BYTEA_P_COPY(0);
		state = palloc0(sizeof(EachState));
		state->release.func = release_each;
		state->release.arg = state;
		MemoryContextRegisterResetCallback(funcctx->multi_call_memory_ctx, &state->release);
		state->site = compile_site(fcinfo, OSTREL_SITE_EACH, PG_GETARG_TEXT_PP(1),
								   PG_GETARG_TEXT_PP(2));
		state->each = ostrel_each_start(state->site, VARDATA(record), VARSIZE(record) - VARHDRSZ,
										&error);
		if (!state->each)
			raise_failure(&error);
		funcctx->user_fctx = state;
		MemoryContextSwitchTo(oldcontext);
	}
	funcctx = SRF_PERCALL_SETUP();
	state = (EachState *) funcctx->user_fctx;
	CHECK_FOR_INTERRUPTS();
	if (!ostrel_each_next(state->each, alloc_in_current_context, &element, &done, &error))
		raise_failure(&error);
	if (done)
		SRF_RETURN_DONE(funcctx);
	if (state->next_index == PG_INT32_MAX)
		ereport(ERROR, (errcode(ERRCODE_PROGRAM_LIMIT_EXCEEDED), errmsg("too many elements")));
	values[0] = Int32GetDatum(state->next_index++);
	if (element.key.kind == OSTREL_ABSENT)
		nulls[1] = true;
	else
		values[1] = PointerGetDatum(cstring_to_text(string_to_server(fcinfo, element.key.data,
																	 element.key.size, "text")));
	values[2] = value_jsonb(fcinfo, &element.value);
	SRF_RETURN_NEXT(funcctx, HeapTupleGetDatum(heap_form_tuple(funcctx->tuple_desc, values,
																nulls)));
}

PG_FUNCTION_INFO_V1(ostrel_p_json);
Datum
ostrel_p_json(PG_FUNCTION_ARGS)
{
	bytea	   *record = PG_GETARG_BYTEA_PP(0);
	OstrelSite *site = call_site(fcinfo, OSTREL_SITE_MESSAGE, PG_GETARG_TEXT_PP(1), NULL);
	char	   *json;
	size_t		size;
	OstrelError error;

	if (!ostrel_render(site, VARDATA_ANY(record), VARSIZE_ANY_EXHDR(record),
					   alloc_in_current_context, &json, &size, &error))
		raise_failure(&error);
	return json_to_jsonb(fcinfo, json, size, NULL);
}

PG_FUNCTION_INFO_V1(ostrel_p_encode);
Datum
ostrel_p_encode(PG_FUNCTION_ARGS)
{
	OstrelSite *site = call_site(fcinfo, OSTREL_SITE_MESSAGE, PG_GETARG_TEXT_PP(0), NULL);
	Jsonb	   *json = PG_GETARG_JSONB_P(1);
	char	   *server_text = JsonbToCString(NULL, &json->root, VARSIZE(json));
	char	   *utf8 = pg_server_to_any(server_text, strlen(server_text), PG_UTF8);
	char	   *bytes;
	size_t		size;
	OstrelError error;
	bytea	   *result;

	if (!ostrel_encode(site, utf8, strlen(utf8), alloc_in_current_context, &bytes, &size, &error))
		raise_failure(&error);
	result = palloc(size + VARHDRSZ);
	SET_VARSIZE(result, size + VARHDRSZ);
	memcpy(VARDATA(result), bytes, size);
	PG_RETURN_BYTEA_P(result);
}

/* The rewritten record as bytea. */
static bytea *
record_result(const char *bytes, size_t size)
{
	bytea	   *result = palloc(size + VARHDRSZ);

	SET_VARSIZE(result, size + VARHDRSZ);
	memcpy(VARDATA(result), bytes, size);
	return result;
}

/*
 * p_set(data, type, path, value): the value's SQL type says how it is read: text as a person
 * types it, bigint, double precision and boolean as their text, jsonb as ProtoJSON, bytea as
 * bytes (an encoded message for a message field).
 */
static Datum
p_set(FunctionCallInfo fcinfo, OstrelValueForm form, const char *value, size_t value_size)
{
	bytea	   *record = PG_GETARG_BYTEA_PP(0);
	OstrelSite *site = call_site(fcinfo, OSTREL_SITE_MESSAGE, PG_GETARG_TEXT_PP(1), NULL);
	size_t		path_size;
	const char *path = text_to_utf8(PG_GETARG_TEXT_PP(2), &path_size);
	char	   *bytes;
	size_t		size;
	OstrelError error;

	if (!ostrel_set(site, VARDATA_ANY(record), VARSIZE_ANY_EXHDR(record), path, path_size, form,
					value, value_size, alloc_in_current_context, &bytes, &size, &error))
		raise_failure(&error);
	PG_RETURN_BYTEA_P(record_result(bytes, size));
}

PG_FUNCTION_INFO_V1(ostrel_p_set_text);
Datum
ostrel_p_set_text(PG_FUNCTION_ARGS)
{
	size_t		size;
	const char *value = text_to_utf8(PG_GETARG_TEXT_PP(3), &size);

	return p_set(fcinfo, OSTREL_VALUE_TEXT, value, size);
}

PG_FUNCTION_INFO_V1(ostrel_p_set_bigint);
Datum
ostrel_p_set_bigint(PG_FUNCTION_ARGS)
{
	char		value[32];

	snprintf(value, sizeof value, INT64_FORMAT, PG_GETARG_INT64(3));
	return p_set(fcinfo, OSTREL_VALUE_TEXT, value, strlen(value));
}

PG_FUNCTION_INFO_V1(ostrel_p_set_double);
Datum
ostrel_p_set_double(PG_FUNCTION_ARGS)
{
	char	   *value = float8out_internal(PG_GETARG_FLOAT8(3));

	return p_set(fcinfo, OSTREL_VALUE_TEXT, value, strlen(value));
}

PG_FUNCTION_INFO_V1(ostrel_p_set_bool);
Datum
ostrel_p_set_bool(PG_FUNCTION_ARGS)
{
	const char *value = PG_GETARG_BOOL(3) ? "true" : "false";

	return p_set(fcinfo, OSTREL_VALUE_TEXT, value, strlen(value));
}

PG_FUNCTION_INFO_V1(ostrel_p_set_jsonb);
Datum
ostrel_p_set_jsonb(PG_FUNCTION_ARGS)
{
	Jsonb	   *json = PG_GETARG_JSONB_P(3);
	char	   *server_text = JsonbToCString(NULL, &json->root, VARSIZE(json));
	char	   *utf8 = pg_server_to_any(server_text, strlen(server_text), PG_UTF8);

	return p_set(fcinfo, OSTREL_VALUE_JSON, utf8, strlen(utf8));
}

PG_FUNCTION_INFO_V1(ostrel_p_set_bytea);
Datum
ostrel_p_set_bytea(PG_FUNCTION_ARGS)
{
	bytea	   *value = PG_GETARG_BYTEA_PP(3);

	return p_set(fcinfo, OSTREL_VALUE_BYTES, VARDATA_ANY(value), VARSIZE_ANY_EXHDR(value));
}

PG_FUNCTION_INFO_V1(ostrel_p_clear);
Datum
ostrel_p_clear(PG_FUNCTION_ARGS)
{
	bytea	   *record = PG_GETARG_BYTEA_PP(0);
	OstrelSite *site = call_site(fcinfo, OSTREL_SITE_MESSAGE, PG_GETARG_TEXT_PP(1), NULL);
	size_t		path_size;
	const char *path = text_to_utf8(PG_GETARG_TEXT_PP(2), &path_size);
	char	   *bytes;
	size_t		size;
	OstrelError error;

	if (!ostrel_clear(site, VARDATA_ANY(record), VARSIZE_ANY_EXHDR(record), path, path_size,
					  alloc_in_current_context, &bytes, &size, &error))
		raise_failure(&error);
	PG_RETURN_BYTEA_P(record_result(bytes, size));
}

PG_FUNCTION_INFO_V1(ostrel_p_merge);
Datum
ostrel_p_merge(PG_FUNCTION_ARGS)
{
	bytea	   *record = PG_GETARG_BYTEA_PP(0);
	OstrelSite *site = call_site(fcinfo, OSTREL_SITE_MESSAGE, PG_GETARG_TEXT_PP(1), NULL);
	bytea	   *other = PG_GETARG_BYTEA_PP(2);
	char	   *bytes;
	size_t		size;
	OstrelError error;

	if (!ostrel_merge(site, VARDATA_ANY(record), VARSIZE_ANY_EXHDR(record), VARDATA_ANY(other),
					  VARSIZE_ANY_EXHDR(other), alloc_in_current_context, &bytes, &size, &error))
		raise_failure(&error);
	PG_RETURN_BYTEA_P(record_result(bytes, size));
}

PG_FUNCTION_INFO_V1(ostrel_p_normalize);
Datum
ostrel_p_normalize(PG_FUNCTION_ARGS)
{
	bytea	   *record = PG_GETARG_BYTEA_PP(0);
	OstrelSite *site = call_site(fcinfo, OSTREL_SITE_MESSAGE, PG_GETARG_TEXT_PP(1), NULL);
	char	   *bytes;
	size_t		size;
	OstrelError error;

	if (!ostrel_normalize(site, VARDATA_ANY(record), VARSIZE_ANY_EXHDR(record),
						  alloc_in_current_context, &bytes, &size, &error))
		raise_failure(&error);
	PG_RETURN_BYTEA_P(record_result(bytes, size));
}

/*
 * ostrel_schema_definitions(format text, input bytea) -> (name, is_message, definition): the
 * registration functions' first step, one canonical definition per type of the input.
 */
PG_FUNCTION_INFO_V1(ostrel_schema_definitions);
Datum
ostrel_schema_definitions(PG_FUNCTION_ARGS)
{
	ReturnSetInfo *rsinfo = (ReturnSetInfo *) fcinfo->resultinfo;
	char	   *format = text_to_cstring(PG_GETARG_TEXT_PP(0));
	bytea	   *input = PG_GETARG_BYTEA_PP(1);
	OstrelSchemaFormat kind;
	OstrelDefinition *definitions;
	size_t		count;
	OstrelError error;

	if (strcmp(format, "descriptor_set") == 0)
		kind = OSTREL_DESCRIPTOR_SET;
	else if (strcmp(format, "manifest") == 0)
		kind = OSTREL_MANIFEST;
	else if (strcmp(format, "proto") == 0)
		kind = OSTREL_PROTO;
	else
		ereport(ERROR, (errcode(ERRCODE_INVALID_PARAMETER_VALUE),
						errmsg("unknown schema format \"%s\"", format)));

	InitMaterializedSRF(fcinfo, 0);
	if (!ostrel_definitions(kind, VARDATA_ANY(input), VARSIZE_ANY_EXHDR(input),
							alloc_in_current_context, &definitions, &count, &error))
		raise_failure(&error);
	for (size_t i = 0; i < count; ++i)
	{
		Datum		values[3];
		bool		nulls[3] = {false, false, false};

		CHECK_FOR_INTERRUPTS();
		values[0] = CStringGetTextDatum(utf8_to_server(definitions[i].name,
													   strlen(definitions[i].name)));
		values[1] = BoolGetDatum(definitions[i].isMessage);
		values[2] = CStringGetTextDatum(utf8_to_server(definitions[i].text,
													   strlen(definitions[i].text)));
		tuplestore_putvalues(rsinfo->setResult, rsinfo->setDesc, values, nulls);
	}
	return (Datum) 0;
}

/* The UTF-8 texts of a text[] without NULLs. */
static size_t
array_texts(ArrayType *array, const char ***texts, size_t **sizes)
{
	Datum	   *elements;
	bool	   *nulls;
	int			count;

	deconstruct_array(array, TEXTOID, -1, false, TYPALIGN_INT, &elements, &nulls, &count);
	*texts = palloc(sizeof(char *) * (count + 1));
	*sizes = palloc(sizeof(size_t) * (count + 1));
	for (int i = 0; i < count; ++i)
	{
		if (nulls[i])
			ereport(ERROR, (errcode(ERRCODE_NULL_VALUE_NOT_ALLOWED),
							errmsg("a schema definition is NULL")));
		(*texts)[i] = text_to_utf8(DatumGetTextPP(elements[i]), &(*sizes)[i]);
	}
	return (size_t) count;
}

/*
 * ostrel_check_schemas(definitions text[]): fails unless every type of the definitions, just added
 * to the catalog, can be created with the registered types its fields refer to. Only the added
 * definitions and the ones they name are read, so a registration costs what it adds. Called by
 * the registration functions after they have added their rows; the backend's store is dropped
 * when the transaction ends, however it ends.
 */
PG_FUNCTION_INFO_V1(ostrel_check_schemas);
Datum
ostrel_check_schemas(PG_FUNCTION_ARGS)
{
	Oid			namespace = get_func_namespace(fcinfo->flinfo->fn_oid);
	const char **added;
	size_t	   *added_sizes;
	size_t		added_count;
	char	  **names;
	size_t		name_count;
	const char **context = NULL;
	size_t	   *context_sizes = NULL;
	uint64		context_count = 0;
	OstrelError error;

	registered_in_transaction = true;
	added_count = array_texts(PG_GETARG_ARRAYTYPE_P(0), &added, &added_sizes);
	if (!ostrel_referenced_names(added, added_sizes, added_count, alloc_in_current_context,
								 &names, &name_count, &error))
		raise_failure(&error);
	if (name_count > 0)
		context_count = read_definitions(namespace, name_array(names, name_count), &context,
										 &context_sizes);
	if (!ostrel_check_definitions(added, added_sizes, added_count, context, context_sizes,
								  (size_t) context_count, &error))
		raise_failure(&error);
	PG_RETURN_VOID();
}

/*
 * p_confluent_id, p_confluent_guid, p_confluent_path and p_confluent_payload(value bytea, form
 * text DEFAULT 'zigzag'): the parts of a Kafka value in Confluent's envelope, as Kafka Connect's
 * sinks store them, so that p_get reads the message:
 *
 *   SELECT p_confluent_id(value), p_get_text(p_confluent_payload(value), 'shop.Order', 'id')
 *     FROM kafka_orders;
 *
 * The id is NULL when the envelope carries a GUID, and the GUID NULL when it carries an id.
 */
static void
confluent_split(FunctionCallInfo fcinfo, OstrelConfluent *out)
{
	bytea	   *value = PG_GETARG_BYTEA_PP(0);
	bool		unsigned_indexes = false;
	OstrelError error;

	if (PG_NARGS() > 1)
	{
		char	   *form = text_to_cstring(PG_GETARG_TEXT_PP(1));

		if (strcmp(form, "unsigned") == 0)
			unsigned_indexes = true;
		else if (strcmp(form, "zigzag") != 0)
			ereport(ERROR, (errcode(ERRCODE_INVALID_PARAMETER_VALUE),
							errmsg("the index form is 'zigzag' or 'unsigned', not \"%s\"", form)));
	}
	if (!ostrel_confluent_split(VARDATA_ANY(value), VARSIZE_ANY_EXHDR(value), unsigned_indexes,
								alloc_in_current_context, out, &error))
		raise_failure(&error);
}

PG_FUNCTION_INFO_V1(ostrel_p_confluent_id);
Datum
ostrel_p_confluent_id(PG_FUNCTION_ARGS)
{
	OstrelConfluent parts;

	confluent_split(fcinfo, &parts);
	if (!parts.hasId)
		PG_RETURN_NULL();
	PG_RETURN_INT32(parts.id);
}

PG_FUNCTION_INFO_V1(ostrel_p_confluent_guid);
Datum
ostrel_p_confluent_guid(PG_FUNCTION_ARGS)
{
	OstrelConfluent parts;
	pg_uuid_t  *guid;

	confluent_split(fcinfo, &parts);
	if (parts.hasId)
		PG_RETURN_NULL();
	guid = (pg_uuid_t *) palloc(sizeof(pg_uuid_t));
	memcpy(guid->data, parts.guid, UUID_LEN);
	PG_RETURN_UUID_P(guid);
}

PG_FUNCTION_INFO_V1(ostrel_p_confluent_path);
Datum
ostrel_p_confluent_path(PG_FUNCTION_ARGS)
{
	OstrelConfluent parts;
	Datum	   *elements;

	confluent_split(fcinfo, &parts);
	elements = (Datum *) palloc(parts.indexCount * sizeof(Datum));
	for (size_t i = 0; i < parts.indexCount; i++)
		elements[i] = Int32GetDatum(parts.indexes[i]);
	PG_RETURN_ARRAYTYPE_P(construct_array(elements, (int) parts.indexCount, INT4OID, sizeof(int32),
										  true, TYPALIGN_INT));
}

PG_FUNCTION_INFO_V1(ostrel_p_confluent_payload);
Datum
ostrel_p_confluent_payload(PG_FUNCTION_ARGS)
{
	bytea	   *value = PG_GETARG_BYTEA_PP(0);
	OstrelConfluent parts;
	size_t		size;
	bytea	   *payload;

	confluent_split(fcinfo, &parts);
	size = VARSIZE_ANY_EXHDR(value) - parts.payloadOffset;
	payload = (bytea *) palloc(VARHDRSZ + size);
	SET_VARSIZE(payload, VARHDRSZ + size);
	memcpy(VARDATA(payload), VARDATA_ANY(value) + parts.payloadOffset, size);
	PG_RETURN_BYTEA_P(payload);
}
