"""Typed access to Protocol Buffers records whose schema is known only at run time.

Load a SchemaStore (descriptor set, .proto text or files, JSON manifest), look up a MessageSchema
and read values out of encoded records by property path ("customer.name", "items[0].sku")
without parsing them whole.

Threads: a SchemaStore and its MessageSchemas are immutable and may be shared between threads.
Records are borrowed for the duration of a call; the GIL is released while whole records are
rendered or parsed, so a bytearray must not be changed by another thread meanwhile.
"""

import os
from typing import Any, Iterable, Iterator, Literal, Sequence, Union

import numpy
import pandas

__version__: str

Record = Union[bytes, bytearray, memoryview]
# What get() returns: None when absent; dicts for messages and maps, lists for repeated fields.
Value = Union[None, int, float, bool, str, bytes, dict[Any, Any], list[Any]]

class Error(Exception):
    """The base of every error the library raises. str() is the library's text."""
    code: str
    """The error's case, for example 'fieldNotFound' or 'malformedProtobuf'."""

class SchematizerError(Error):
    """A fault of a request: an unknown name, a path the schema does not have, JSON or text that
    does not describe the message."""

class SerializationError(Error):
    """A fault of the encoded bytes: malformed, cut short, or a wire type that does not fit."""

class MergeConflict(Error):
    """Two definitions of one type that cannot be merged."""

class SchemaManifestJSONError(Error):
    """A JSON manifest or a .proto file that cannot be read as a schema."""

class SchemaManifestDSCError(Error):
    """A descriptor set that cannot be imported."""

class PropertyPathError(Error):
    """A property path that breaks the grammar; the text points at the offending character."""

class FramingError(Error):
    """A stream of records whose framing breaks: a length prefix that is malformed
    ('malformedLength') or cut off, or a record cut off, by the end of the stream ('truncated')."""

class ColumnError(Error):
    """A record that could not become a row of a projection (code 'recordFailed', the text naming
    the record's number and byte offset), or a path that cannot become a column
    ('unsupportedPath')."""

class SchemaStore:
    """A set of message and enum schemas. A MessageSchema keeps its store alive."""

    @staticmethod
    def from_descriptor_set(
        data: Record, *, groups: Literal["refuse", "skip", "read"] = "refuse"
    ) -> SchemaStore:
        """A store of a serialized google.protobuf.FileDescriptorSet (protoc
        --descriptor_set_out --include_imports). groups: what proto2 groups do: an error, left
        out, or read as messages."""
    @staticmethod
    def from_proto(
        source: Union[str, os.PathLike[str], Sequence[Union[str, os.PathLike[str]]]],
        *,
        include: Union[Sequence[Union[str, os.PathLike[str]]], None] = None,
    ) -> SchemaStore:
        """A store of .proto schemas parsed at run time. A str is the text of one .proto file
        (importing only google/protobuf/*.proto); a path or a list of paths names files, found
        in the `include` folders (by default each file's own folder), with their imports."""
    @staticmethod
    def from_manifest(json: Union[str, bytes]) -> SchemaStore:
        """A store of the library's JSON manifest form."""
    def message(self, name: str) -> MessageSchema:
        """The schema of a message type by full name ('shop.Order'); SchematizerError
        (schemaNotFound) otherwise."""
    def message_names(self) -> list[str]:
        """Every message type's full name, sorted."""
    def enum_names(self) -> list[str]:
        """Every enum type's full name, sorted."""
    def __contains__(self, name: str) -> bool: ...

class ElementIterator(Iterator[Value]):
    def __iter__(self) -> ElementIterator: ...
    def __next__(self) -> Value: ...

class MessageSchema:
    """The schema of one message type: reads values out of its encoded records.

    exact=True reads as protobuf's parse does where a record holds a field more than once (the
    last scalar wins, messages merge); by default the first occurrence is read."""

    @property
    def name(self) -> str:
        """The full name, for example 'shop.Order'."""
    @property
    def field_names(self) -> list[str]:
        """The field names, in ascending field number."""
    def get(self, record: Record, path: str, *, exact: bool = False) -> Value:
        """The value at `path`, or None when the record does not hold it: int, float, bool, str,
        bytes, an enum value's name (its number when the enum has no name for it), a dict of the
        fields present for a message, a list for a repeated field named without an index, a dict
        for a map field (empty when the message holding it has none; None when that message is
        absent)."""
    def has(self, record: Record, path: str, *, exact: bool = False) -> bool:
        """Whether the record holds a value at `path` (a repeated field: at least one element)."""
    def iterate(self, record: Record, path: str, *, exact: bool = False) -> ElementIterator:
        """The elements of the repeated field at `path` (named without an index), one at a time;
        map fields yield {'key': ..., 'value': ...} entries."""
    def to_dict(self, record: Record, *, exact: bool = False) -> dict[str, Any]:
        """Every field the record holds, by name, as get() gives each."""
    def project(
        self,
        records: Union[Record, str, os.PathLike[str], Iterable[Record]],
        paths: Sequence[str],
        *,
        framing: Literal["varint", "u32be", "single"] = "varint",
        exact: bool = False,
        enums: Literal["dictionary", "strings", "numbers"] = "dictionary",
        defaults: bool = False,
        null_row_on_error: bool = False,
        explode: str = "",
    ) -> Table:
        """A Table of `paths` read from many records: one column per path, one row per record.

        records: an iterable of bytes-like records; or a bytes-like buffer, or a file path
        (memory-mapped), holding records framed as `framing` says: 'varint' (each preceded by
        its length as a varint, as writeDelimitedTo writes them), 'u32be' (by its length as a
        big-endian 32-bit integer, -1 for a null record, as kcat -f '%R%s' writes them) or
        'single' (one record).
        A path may end at a repeated field (a list column), a map (a map column) or a message
        (a struct column); 'items[*].sku' reads a leaf of every element. enums: names as a
        dictionary, plain strings, or numbers. defaults: absent scalars read as their zero value
        instead of null. null_row_on_error: a record that cannot be read becomes a row of nulls
        (counted by failed_records) instead of raising ColumnError. explode: a repeated field
        among the paths whose elements become the rows. The GIL is released while the records
        are read; a bytearray must not change meanwhile."""
    def to_json(
        self,
        record: Record,
        *,
        indent: bool = False,
        json_names: bool = False,
        enums_as_numbers: bool = False,
        print_defaults: bool = False,
        strict: bool = False,
    ) -> str:
        """The record as ProtoJSON text."""
    def from_json(self, text: str, *, ignore_unknown_fields: bool = False) -> bytes:
        """The encoded record that ProtoJSON `text` describes."""
    def to_text(self, record: Record) -> str:
        """The record in protobuf's text format, as `protoc --decode` prints it."""
    def from_text(self, text: str) -> bytes:
        """The encoded record that text-format `text` describes, as `protoc --encode` writes it."""

class Table:
    """Columns read from many records by MessageSchema.project, held as Arrow record batches.
    Immutable and shareable between threads; arrays and streams handed out keep the batches
    alive after the table, its schema and its store are gone."""

    @property
    def num_rows(self) -> int: ...
    @property
    def column_names(self) -> list[str]:
        """The paths, as given."""
    @property
    def failed_records(self) -> int:
        """Records that became rows of nulls (null_row_on_error=True)."""
    def __len__(self) -> int: ...
    def to_pydict(self) -> dict[str, Union[numpy.ndarray, numpy.ma.MaskedArray, list[Any]]]:
        """{path: column}. Integer, float, timestamp and duration columns are read-only numpy
        arrays viewing the batch without a copy, bool columns numpy bool arrays; a column
        holding nulls is a numpy.ma.MaskedArray whose mask is True at the nulls. Other columns
        are lists: str, bytes, enum names, lists, dicts, None for null."""
    def to_pandas(self) -> pandas.DataFrame:
        """A DataFrame: numeric columns over the same buffers (pandas' nullable arrays where
        nulls occur), enums as Categorical, other columns as objects."""
    def __arrow_c_stream__(self, requested_schema: object = None) -> object:
        """Arrow's PyCapsule interface: an ArrowArrayStream over the batches, without a copy
        (pyarrow.table(t), polars.from_arrow(t), duckdb). requested_schema is not honoured."""
    def __arrow_c_schema__(self) -> object:
        """The batches' ArrowSchema, as a PyCapsule."""
