// The columnar projection's public surface: errors, record sources, batches and streams.

#include "ostrel/columns/columns.hpp"

#include <cerrno>
#include <new>

#include "columns/column_plan.hpp"

namespace ostrel {

ColumnError::ColumnError(Code code, std::string what, int64_t recordNumber, int64_t byteOffset,
                         std::string path, std::string reason)
    : Error(std::move(what)),
      code_(code),
      recordNumber_(recordNumber),
      byteOffset_(byteOffset),
      path_(std::move(path)),
      reason_(std::move(reason)) {}

ColumnError ColumnError::recordFailed(int64_t recordNumber, int64_t byteOffset,
                                      std::string reason) {
  std::string what = "record " + std::to_string(recordNumber) + " at byte " +
                     std::to_string(byteOffset) + ": " + reason;
  return {Code::recordFailed, std::move(what), recordNumber, byteOffset, {}, std::move(reason)};
}

ColumnError ColumnError::unsupportedPath(std::string path, std::string reason) {
  std::string what = "column path \"" + path + "\": " + reason;
  return {Code::unsupportedPath, std::move(what), 0, 0, std::move(path), std::move(reason)};
}

ColumnError ColumnError::batchFull() {
  return {Code::batchFull,
          "a record's values would take a column of the batch past 2 GiB",
          0,
          0,
          {},
          {}};
}

namespace {

std::vector<std::string> copyPaths(std::initializer_list<std::string_view> paths) {
  std::vector<std::string> copies;
  copies.reserve(paths.size());
  for (std::string_view path : paths) copies.emplace_back(path);
  return copies;
}

// Appends records from `source` until the batch is full; see ColumnProjection::fill.
bool fillBatch(const detail::ColumnPlan& plan, detail::ColumnBuilder& builder,
               RecordSource& source) {
  while (builder.rows < plan.options.batchRows) {
    ByteView record;
    int64_t offset = 0;
    if (builder.held) {
      record = *builder.held;
      offset = builder.heldOffset;
      builder.held.reset();
    } else {
      const std::optional<ByteView> next = source.next();
      if (!next) break;
      record = *next;
      offset = source.offset();
    }
    try {
      detail::appendRecord(plan, builder, record, offset);
    } catch (const ColumnError& error) {
      if (error.code() != ColumnError::Code::batchFull || builder.rows == 0) throw;
      // The record starts the next batch.
      builder.held = record;
      builder.heldOffset = offset;
      break;
    }
  }
  return builder.rows > 0;
}

// What an exported stream owns: the plan, a batch of its own and the source.
struct StreamState {
  std::shared_ptr<const detail::ColumnPlan> plan;
  detail::ColumnBuilder builder;
  RecordSource source;
  std::string error;
  int failure = 0;
};

int streamSchema(ArrowArrayStream* stream, ArrowSchema* out) {
  auto* state = static_cast<StreamState*>(stream->private_data);
  try {
    state->plan->schema.exportTo(out);
    return 0;
  } catch (const std::bad_alloc&) {
    state->error = "out of memory";
    return ENOMEM;
  }
}

int streamNext(ArrowArrayStream* stream, ArrowArray* out) {
  auto* state = static_cast<StreamState*>(stream->private_data);
  // A failed stream cannot be followed past the record that failed.
  if (state->failure != 0) return state->failure;
  try {
    if (fillBatch(*state->plan, state->builder, state->source)) {
      detail::takeBatch(*state->plan, state->builder, out);
    } else {
      out->release = nullptr;
    }
    return 0;
  } catch (const std::bad_alloc&) {
    state->error = "out of memory";
    state->failure = ENOMEM;
  } catch (const std::exception& error) {
    state->error = error.what();
    state->failure = EINVAL;
  } catch (...) {
    state->error = "unknown error";
    state->failure = EINVAL;
  }
  return state->failure;
}

const char* streamError(ArrowArrayStream* stream) {
  const auto* state = static_cast<StreamState*>(stream->private_data);
  return state->error.empty() ? nullptr : state->error.c_str();
}

void streamRelease(ArrowArrayStream* stream) {
  if (stream == nullptr || stream->release == nullptr) return;
  delete static_cast<StreamState*>(stream->private_data);
  stream->release = nullptr;
}

}  // namespace

ColumnProjection::ColumnProjection(const MessageSchema& schema, std::span<const std::string> paths,
                                   ColumnOptions options)
    : plan_(std::make_shared<const detail::ColumnPlan>(
          schema, std::vector<std::string>(paths.begin(), paths.end()), std::move(options))),
      builder_(std::make_unique<detail::ColumnBuilder>(*plan_)) {}

ColumnProjection::ColumnProjection(const MessageSchema& schema,
                                   std::initializer_list<std::string_view> paths,
                                   ColumnOptions options)
    : plan_(
          std::make_shared<const detail::ColumnPlan>(schema, copyPaths(paths), std::move(options))),
      builder_(std::make_unique<detail::ColumnBuilder>(*plan_)) {}

ColumnProjection::ColumnProjection(ColumnProjection&&) noexcept = default;
ColumnProjection& ColumnProjection::operator=(ColumnProjection&&) noexcept = default;
ColumnProjection::~ColumnProjection() = default;

size_t ColumnProjection::size() const noexcept { return plan_->texts.size(); }
const std::string& ColumnProjection::pathText(size_t i) const { return plan_->texts.at(i); }
const ColumnOptions& ColumnProjection::options() const noexcept { return plan_->options; }

void ColumnProjection::exportSchema(ArrowSchema* out) const { plan_->schema.exportTo(out); }

void ColumnProjection::append(ByteView record) { append(record, builder_->bytes); }

void ColumnProjection::append(ByteView record, int64_t byteOffset) {
  detail::appendRecord(*plan_, *builder_, record, byteOffset);
  builder_->bytes = byteOffset + static_cast<int64_t>(record.size());
}

bool ColumnProjection::fill(RecordSource& source) { return fillBatch(*plan_, *builder_, source); }

int64_t ColumnProjection::rows() const noexcept { return builder_->rows; }
int64_t ColumnProjection::recordsRead() const noexcept { return builder_->records; }
int64_t ColumnProjection::failedRecords() const noexcept { return builder_->failed; }

void ColumnProjection::takeBatch(ArrowArray* out) { detail::takeBatch(*plan_, *builder_, out); }

void ColumnProjection::exportStream(RecordSource source, ArrowArrayStream* out) const {
  auto* state = new StreamState{plan_, detail::ColumnBuilder(*plan_), std::move(source), {}, 0};
  out->get_schema = streamSchema;
  out->get_next = streamNext;
  out->get_last_error = streamError;
  out->release = streamRelease;
  out->private_data = state;
}

}  // namespace ostrel
