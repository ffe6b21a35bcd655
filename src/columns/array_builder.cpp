// Growing Arrow arrays and handing them over through the C Data Interface.

#include "columns/array_builder.hpp"

#include <algorithm>
#include <bit>

namespace ostrel::detail {
namespace {

// What zero-length buffers point at: consumers may read a pointer of a buffer they never index.
alignas(64) const uint8_t kEmptyBuffer[64] = {};

// What an exported array owns: its buffers, its children and its dictionary.
struct ExportedArray {
  std::vector<Buffer> buffers;
  std::vector<const void*> pointers;
  std::unique_ptr<ArrowArray[]> children;
  std::vector<ArrowArray*> childPointers;
  std::unique_ptr<ArrowArray> dictionary;
};

void releaseArray(ArrowArray* array) {
  if (array == nullptr || array->release == nullptr) return;
  auto* owned = static_cast<ExportedArray*>(array->private_data);
  // A consumer may have moved a child out, leaving it released.
  for (int64_t i = 0; i < array->n_children; ++i) {
    ArrowArray* child = array->children[i];
    if (child->release != nullptr) child->release(child);
  }
  if (array->dictionary != nullptr && array->dictionary->release != nullptr) {
    array->dictionary->release(array->dictionary);
  }
  delete owned;
  array->release = nullptr;
}

const void* pointerOf(const Buffer& buffer) {
  return buffer.size() == 0 ? kEmptyBuffer : buffer.data();
}

// Fills `out` from `owned`, which it takes.
void publish(ArrowArray* out, std::unique_ptr<ExportedArray> owned, int64_t length, int64_t nulls,
             int64_t childCount) {
  for (const Buffer& buffer : owned->buffers) owned->pointers.push_back(pointerOf(buffer));
  // Without nulls the validity buffer is left out, as the format allows.
  if (nulls == 0 && !owned->pointers.empty()) owned->pointers[0] = nullptr;
  out->length = length;
  out->null_count = nulls;
  out->offset = 0;
  out->n_buffers = static_cast<int64_t>(owned->pointers.size());
  out->n_children = childCount;
  out->buffers = owned->pointers.data();
  out->children = childCount > 0 ? owned->childPointers.data() : nullptr;
  out->dictionary = owned->dictionary.get();
  out->release = releaseArray;
  out->private_data = owned.release();
}

// What an exported schema owns.
struct ExportedSchema {
  std::string format;
  std::string name;
  std::unique_ptr<ArrowSchema[]> children;
  std::vector<ArrowSchema*> childPointers;
  std::unique_ptr<ArrowSchema> dictionary;
};

void releaseSchema(ArrowSchema* schema) {
  if (schema == nullptr || schema->release == nullptr) return;
  auto* owned = static_cast<ExportedSchema*>(schema->private_data);
  for (int64_t i = 0; i < schema->n_children; ++i) {
    ArrowSchema* child = schema->children[i];
    if (child->release != nullptr) child->release(child);
  }
  if (schema->dictionary != nullptr && schema->dictionary->release != nullptr) {
    schema->dictionary->release(schema->dictionary);
  }
  delete owned;
  schema->release = nullptr;
}

}  // namespace

int32_t EnumDictionary::find(int64_t number) const noexcept {
  const auto it = std::lower_bound(numbers.begin(), numbers.end(), number);
  if (it == numbers.end() || *it != number) return -1;
  return static_cast<int32_t>(it - numbers.begin());
}

ArrayBuilder::ArrayBuilder(Layout layout, uint8_t width, bool large)
    : layout(layout), width(width), large(large) {
  reset();
}

void ArrayBuilder::reset() {
  length = 0;
  nulls = 0;
  validity = Buffer();
  values = Buffer();
  data = Buffer();
  unnamed.clear();
  if (layout == Layout::binary || layout == Layout::list) pushOffset(0);
}

void ArrayBuilder::appendDictionaryIndex(int64_t number) {
  int32_t index = dictionary->find(number);
  if (index < 0) {
    const auto it = std::find(unnamed.begin(), unnamed.end(), number);
    index = static_cast<int32_t>(dictionary->numbers.size() +
                                 static_cast<size_t>(it - unnamed.begin()));
    if (it == unnamed.end()) unnamed.push_back(number);
  }
  appendValue<int32_t>(index);
}

void ArrayBuilder::appendNull() {
  switch (layout) {
    case Layout::fixed:
      values.appendZeros(width);
      break;
    case Layout::dictionary:
      values.push<int32_t>(0);
      break;
    case Layout::bits:
      setBit(values, length, false);
      break;
    case Layout::binary:
      pushOffset(data.size());
      break;
    case Layout::list:
      pushOffset(static_cast<size_t>(children[0].length));
      break;
    case Layout::structure:
      for (ArrayBuilder& child : children) child.appendNull();
      break;
  }
  setValidity(false);
}

size_t ArrayBuilder::dataEnd() const noexcept {
  return layout == Layout::binary ? data.size() : static_cast<size_t>(children[0].length);
}

size_t ArrayBuilder::largestOffsetData() const noexcept {
  size_t largest = 0;
  if (!large && (layout == Layout::binary || layout == Layout::list)) largest = dataEnd();
  for (const ArrayBuilder& child : children) {
    largest = std::max(largest, child.largestOffsetData());
  }
  return largest;
}

void ArrayBuilder::truncate(int64_t rows) {
  if (rows >= length) return;
  for (int64_t row = rows; row < length; ++row) {
    if ((validity.data()[row >> 3] & (1u << (row & 7))) == 0) --nulls;
  }
  switch (layout) {
    case Layout::fixed:
      values.truncate(static_cast<size_t>(rows) * width);
      break;
    case Layout::dictionary:
      values.truncate(static_cast<size_t>(rows) * 4);
      break;
    case Layout::bits:
      break;
    case Layout::binary:
      data.truncate(offsetAt(rows));
      values.truncate(static_cast<size_t>(rows + 1) * (large ? 8 : 4));
      break;
    case Layout::list:
      children[0].truncate(static_cast<int64_t>(offsetAt(rows)));
      values.truncate(static_cast<size_t>(rows + 1) * (large ? 8 : 4));
      break;
    case Layout::structure:
      for (ArrayBuilder& child : children) child.truncate(rows);
      break;
  }
  length = rows;
}

void ArrayBuilder::exportTo(ArrowArray* out) {
  auto owned = std::make_unique<ExportedArray>();
  const int64_t childCount = static_cast<int64_t>(children.size());
  if (childCount > 0) {
    owned->children = std::make_unique<ArrowArray[]>(children.size());
    for (size_t i = 0; i < children.size(); ++i) {
      owned->children[i].release = nullptr;
      owned->childPointers.push_back(&owned->children[i]);
    }
  }
  if (layout == Layout::dictionary) {
    ArrayBuilder names(Layout::binary, 0, false);
    for (const std::string& name : dictionary->names) names.appendBytes(name.data(), name.size());
    for (int64_t number : unnamed) {
      const std::string text = std::to_string(number);
      names.appendBytes(text.data(), text.size());
    }
    owned->dictionary = std::make_unique<ArrowArray>();
    names.exportTo(owned->dictionary.get());
  }
  owned->buffers.push_back(std::move(validity));
  if (layout != Layout::structure) owned->buffers.push_back(std::move(values));
  if (layout == Layout::binary) owned->buffers.push_back(std::move(data));
  const int64_t rows = length;
  const int64_t nullCount = nulls;
  // The children go first: once they are exported nothing here can fail.
  for (size_t i = 0; i < children.size(); ++i) children[i].exportTo(&owned->children[i]);
  publish(out, std::move(owned), rows, nullCount, childCount);
  reset();
}

void ArrowField::exportTo(ArrowSchema* out) const {
  auto owned = std::make_unique<ExportedSchema>();
  owned->format = format;
  owned->name = name;
  if (!children.empty()) {
    owned->children = std::make_unique<ArrowSchema[]>(children.size());
    for (size_t i = 0; i < children.size(); ++i) {
      owned->children[i].release = nullptr;
      owned->childPointers.push_back(&owned->children[i]);
    }
  }
  if (dictionary) {
    owned->dictionary = std::make_unique<ArrowSchema>();
    dictionary->exportTo(owned->dictionary.get());
  }
  try {
    for (size_t i = 0; i < children.size(); ++i) children[i].exportTo(&owned->children[i]);
  } catch (...) {
    for (size_t i = 0; i < children.size(); ++i) releaseSchema(&owned->children[i]);
    if (owned->dictionary) releaseSchema(owned->dictionary.get());
    throw;
  }
  out->format = owned->format.c_str();
  out->name = owned->name.c_str();
  out->metadata = nullptr;
  out->flags = flags;
  out->n_children = static_cast<int64_t>(children.size());
  out->children = children.empty() ? nullptr : owned->childPointers.data();
  out->dictionary = owned->dictionary.get();
  out->release = releaseSchema;
  out->private_data = owned.release();
}

}  // namespace ostrel::detail
