/*
 * The SQL functions of the ostrel extension: argument handling, result construction, caching and
 * error reporting on PostgreSQL's side. All work on records and schemas happens behind bridge.h,
 * which never lets a C++ exception out and never raises a PostgreSQL error, so every ereport here
 * runs with no C++ object alive on the stack.
 *
 * Caching: each backend builds one schema store from the extension's catalog table the first time
 * it needs it and keeps it. Registered definitions never change and are never removed (the table
 * refuses updates and deletes), so a cached store is never wrong, only possibly incomplete: a
 * type it does not know makes the backend read the catalog again. The store is dropped when the
 * catalog table itself is invalidated (DROP EXTENSION, for one) and at the end of a transaction
 * that registered definitions, since a rollback takes them back. Each call site (fn_extra) keeps
 * the path it resolved, with the store it was resolved against, for as long as the query runs.
 */
#include "postgres.h"

#include <math.h>

#include "access/xact.h"
#include "catalog/pg_type.h"
#include "common/base64.h"
#include "executor/spi.h"
#include "fmgr.h"
#include "funcapi.h"
#include "mb/pg_wchar.h"
#include "miscadmin.h"
#include "utils/array.h"
#include "utils/builtins.h"
#include "utils/fmgrprotos.h"
#include "utils/inval.h"
#include "utils/jsonb.h"
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
		default:
			code = ERRCODE_INTERNAL_ERROR;
			break;
	}
	ereport(ERROR, (errcode(code), errmsg("%s", error->text)));
}

/* Text the library produced (UTF-8) as text of the database encoding. */
static char *
utf8_to_server(const char *data, size_t size)
{
	return pg_any_to_server(data, (int) size, PG_UTF8);
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
	ostrel_bridge_init();
	CacheRegisterRelcacheCallback(relcache_invalidated, (Datum) 0);
	RegisterXactCallback(transaction_ended, NULL);
	RegisterSubXactCallback(subtransaction_ended, NULL);
}

/*
 * Builds the backend's store from the catalog table that lives in `namespace` (the schema of the
 * extension, which is where its functions are). Reads with the caller's snapshot, so that it also
 * works in parallel workers, where no new snapshot may be taken.
 */
static void
load_store(Oid namespace)
{
	Oid			relid = get_relname_relid("ostrel_schemas", namespace);
	char	   *query;
	bool		pushed = false;
	const char **definitions;
	size_t	   *sizes;
	uint64		count;
	OstrelError error;

	if (!OidIsValid(relid))
		ereport(ERROR, (errcode(ERRCODE_UNDEFINED_TABLE),
						errmsg("the ostrel catalog table ostrel_schemas is missing")));
	query = psprintf("SELECT definition FROM %s.ostrel_schemas",
					 quote_identifier(get_namespace_name(namespace)));
	if (!ActiveSnapshotSet())
	{
		PushActiveSnapshot(GetTransactionSnapshot());
		pushed = true;
	}
	if (SPI_connect() != SPI_OK_CONNECT)
		elog(ERROR, "SPI_connect failed");
	if (SPI_execute(query, true, 0) != SPI_OK_SELECT)
		elog(ERROR, "cannot read the ostrel catalog");
	count = SPI_processed;
	definitions = SPI_palloc(sizeof(char *) * (count + 1));
	sizes = SPI_palloc(sizeof(size_t) * (count + 1));
	for (uint64 i = 0; i < count; ++i)
	{
		bool		isnull;
		Datum		value = SPI_getbinval(SPI_tuptable->vals[i], SPI_tuptable->tupdesc, 1,
										  &isnull);
		text	   *definition = DatumGetTextPP(value);
		size_t		size = VARSIZE_ANY_EXHDR(definition);
		char	   *copy = SPI_palloc(size + 1);

		memcpy(copy, VARDATA_ANY(definition), size);
		copy[size] = '\0';
		definitions[i] = copy;
		sizes[i] = size;
	}
	SPI_finish();
	if (pushed)
		PopActiveSnapshot();

	if (!ostrel_store_load(definitions, sizes, (size_t) count, &error))
		raise_failure(&error);
	catalog_relid = relid;
	store_stale = false;
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

	if (store_stale || !ostrel_store_loaded())
		load_store(namespace);
	site = ostrel_site_compile(kind, type_text, type_size, path_text, path_size, &error);
	if (!site && error.failure == OSTREL_UNKNOWN_TYPE)
	{
		/* Registered since the store was built? */
		load_store(namespace);
		site = ostrel_site_compile(kind, type_text, type_size, path_text, path_size, &error);
	}
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

static const char *
kind_name(OstrelKind kind)
{
	switch (kind)
	{
		case OSTREL_INT:
			return "a signed integer";
		case OSTREL_UINT:
			return "an unsigned integer";
		case OSTREL_FLOAT:
			return "a float";
		case OSTREL_DOUBLE:
			return "a double";
		case OSTREL_BOOL:
			return "a bool";
		case OSTREL_ENUM:
			return "an enum";
		case OSTREL_STRING:
			return "a string";
		case OSTREL_BYTES:
			return "bytes";
		case OSTREL_MESSAGE:
			return "a message";
		default:
			return "absent";
	}
}

static void wrong_type(FunctionCallInfo fcinfo, const OstrelValue *value,
					   const char *expected) pg_attribute_noreturn();

static void
wrong_type(FunctionCallInfo fcinfo, const OstrelValue *value, const char *expected)
{
	ereport(ERROR,
			(errcode(ERRCODE_DATATYPE_MISMATCH),
			 errmsg("%s: the value at \"%s\" is %s, which %s",
					get_func_name(fcinfo->flinfo->fn_oid),
					text_to_cstring(PG_GETARG_TEXT_PP(2)), kind_name(value->kind), expected)));
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
	/* Bytes and encoded messages in *value borrow from the detoasted record, which lives on. */
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
value_jsonb(const OstrelValue *value)
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
				char	   *string = utf8_to_server(value->data, value->size);

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
			return DirectFunctionCall1(jsonb_in,
									   CStringGetDatum(utf8_to_server(value->data, value->size)));
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
	return value_jsonb(&value);
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
			wrong_type(fcinfo, &value, "is not an integer (try p_get_double or p_get_text)");
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
			wrong_type(fcinfo, &value, "is not a number");
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
			wrong_type(fcinfo, &value, "is not a number");
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
		wrong_type(fcinfo, &value, "is not a bool");
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
		case OSTREL_MESSAGE:
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
		wrong_type(fcinfo, &value, "is not bytes, a string or a message");
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

PG_FUNCTION_INFO_V1(ostrel_p_each);
Datum
ostrel_p_each(PG_FUNCTION_ARGS)
{
	ReturnSetInfo *rsinfo = (ReturnSetInfo *) fcinfo->resultinfo;
	bytea	   *record = PG_GETARG_BYTEA_PP(0);
	OstrelSite *site = call_site(fcinfo, OSTREL_SITE_EACH, PG_GETARG_TEXT_PP(1),
								 PG_GETARG_TEXT_PP(2));
	OstrelElement *elements;
	size_t		count;
	OstrelError error;

	InitMaterializedSRF(fcinfo, 0);
	if (!ostrel_each(site, VARDATA_ANY(record), VARSIZE_ANY_EXHDR(record),
					 alloc_in_current_context, &elements, &count, &error))
		raise_failure(&error);
	if (count > (size_t) PG_INT32_MAX)
		ereport(ERROR, (errcode(ERRCODE_PROGRAM_LIMIT_EXCEEDED), errmsg("too many elements")));
	for (size_t i = 0; i < count; ++i)
	{
		Datum		values[3];
		bool		nulls[3] = {false, false, false};

		values[0] = Int32GetDatum((int32) i);
		if (elements[i].key.kind == OSTREL_ABSENT)
			nulls[1] = true;
		else
			values[1] = PointerGetDatum(cstring_to_text(utf8_to_server(elements[i].key.data,
																		 elements[i].key.size)));
		values[2] = value_jsonb(&elements[i].value);
		tuplestore_putvalues(rsinfo->setResult, rsinfo->setDesc, values, nulls);
	}
	return (Datum) 0;
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
	return DirectFunctionCall1(jsonb_in, CStringGetDatum(utf8_to_server(json, size)));
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

		values[0] = CStringGetTextDatum(utf8_to_server(definitions[i].name,
													   strlen(definitions[i].name)));
		values[1] = BoolGetDatum(definitions[i].isMessage);
		values[2] = CStringGetTextDatum(utf8_to_server(definitions[i].text,
													   strlen(definitions[i].text)));
		tuplestore_putvalues(rsinfo->setResult, rsinfo->setDesc, values, nulls);
	}
	return (Datum) 0;
}

/*
 * ostrel_check_schemas(definitions text[]): fails unless the definitions make a store in which
 * every type resolves. Called by the registration functions after they have added their rows;
 * from then on this backend's store is rebuilt before its next use and when the transaction ends.
 */
PG_FUNCTION_INFO_V1(ostrel_check_schemas);
Datum
ostrel_check_schemas(PG_FUNCTION_ARGS)
{
	ArrayType  *array = PG_GETARG_ARRAYTYPE_P(0);
	Datum	   *elements;
	bool	   *nulls;
	int			count;
	const char **definitions;
	size_t	   *sizes;
	OstrelError error;

	registered_in_transaction = true;
	store_stale = true;
	deconstruct_array(array, TEXTOID, -1, false, TYPALIGN_INT, &elements, &nulls, &count);
	definitions = palloc(sizeof(char *) * (count + 1));
	sizes = palloc(sizeof(size_t) * (count + 1));
	for (int i = 0; i < count; ++i)
	{
		text	   *definition;

		if (nulls[i])
			ereport(ERROR, (errcode(ERRCODE_NULL_VALUE_NOT_ALLOWED),
							errmsg("a schema definition is NULL")));
		definition = DatumGetTextPP(elements[i]);
		definitions[i] = text_to_utf8(definition, &sizes[i]);
	}
	if (!ostrel_check_definitions(definitions, sizes, (size_t) count, &error))
		raise_failure(&error);
	PG_RETURN_VOID();
}
