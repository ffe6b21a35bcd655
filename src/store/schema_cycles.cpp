// Releasing the reference cycles between the schemas of a store when the store goes.

#include <algorithm>
#include <unordered_map>
#include <vector>

#include "store/proto_schema_store.hpp"

namespace ostrel {
namespace {

// The schema objects a node keeps alive through references that can close a cycle.
using Node = const SchemaDescribing*;

const SchemaDescribing* schemaOf(const std::optional<SchematizedData>& options) {
  return options ? options->messageSchemaImpl().get() : nullptr;
}

const SchemaDescribing* targetOf(const TypeSchemaDescription* type) {
  if (!type) return nullptr;
  if (type->kind() == TypeSchemaDescription::Case::message) return type->messageSchema().get();
  if (type->kind() == TypeSchemaDescription::Case::enum_) return type->enumSchema().get();
  return nullptr;
}

// Strongly connected components of the schema graph (Tarjan's algorithm, iterative so that a long
// chain of types cannot exhaust the stack). Returns each node's component number.
std::unordered_map<Node, size_t> components(
    const std::vector<Node>& nodes, const std::unordered_map<Node, std::vector<Node>>& edges) {
  std::unordered_map<Node, size_t> index, low, component;
  std::vector<Node> stack;
  std::unordered_map<Node, bool> onStack;
  size_t counter = 0, componentCount = 0;
  struct Frame {
    Node node;
    size_t next;
  };
  for (Node root : nodes) {
    if (index.contains(root)) continue;
    std::vector<Frame> frames = {{root, 0}};
    index[root] = low[root] = counter++;
    stack.push_back(root);
    onStack[root] = true;
    while (!frames.empty()) {
      Frame& frame = frames.back();
      const auto found = edges.find(frame.node);
      const std::vector<Node>* out = found == edges.end() ? nullptr : &found->second;
      if (out && frame.next < out->size()) {
        Node next = (*out)[frame.next++];
        if (!index.contains(next)) {
          index[next] = low[next] = counter++;
          stack.push_back(next);
          onStack[next] = true;
          frames.push_back({next, 0});
        } else if (onStack[next]) {
          low[frame.node] = std::min(low[frame.node], index[next]);
        }
        continue;
      }
      const Node done = frame.node;
      frames.pop_back();
      if (!frames.empty()) low[frames.back().node] = std::min(low[frames.back().node], low[done]);
      if (low[done] == index[done]) {
        Node member;
        do {
          member = stack.back();
          stack.pop_back();
          onStack[member] = false;
          component[member] = componentCount;
        } while (member != done);
        ++componentCount;
      }
    }
  }
  return component;
}

}  // namespace

ProtoSchemaStore::~ProtoSchemaStore() {
  std::vector<Node> nodes;
  std::unordered_map<Node, std::vector<Node>> edges;
  std::vector<const ProtoMessageSchema*> messages;
  const auto addEdge = [&](Node from, const SchemaDescribing* to) {
    if (to) edges[from].push_back(to);
  };
  for (const auto& [name, slot] : messageSchemas_) {
    if (!slot.materialised()) continue;
    const ProtoMessageSchema* message = slot.schema().get();
    messages.push_back(message);
    nodes.push_back(message);
    addEdge(message, schemaOf(message->options()));
    message->forEachMaterialisedField([&](const FieldSchemaDescribing& field) {
      const auto& protoField = static_cast<const ProtoFieldSchema&>(field);
      addEdge(message, targetOf(protoField.resolvedType()));
      addEdge(message, schemaOf(protoField.options()));
    });
    message->forEachMaterialisedOneof(
        [&](const OneofSchemaDescribing& oneof) { addEdge(message, schemaOf(oneof.options())); });
  }
  for (const auto& [name, slot] : enumSchemas_) {
    if (!slot.materialised()) continue;
    const ProtoEnumSchema* enumSchema = slot.schema().get();
    nodes.push_back(enumSchema);
    addEdge(enumSchema, schemaOf(enumSchema->options()));
    for (const auto& [number, options] : enumSchema->valueOptions()) {
      addEdge(enumSchema, options.messageSchemaImpl().get());
    }
  }
  if (edges.empty()) return;

  // Every cycle passes through a field: an options message cannot carry options of its own kind,
  // so following options alone never leads back. Releasing the field references that stay inside
  // one component therefore breaks every cycle, and touches nothing that is not part of one.
  const auto component = components(nodes, edges);
  const auto sameComponent = [&](Node a, const SchemaDescribing* b) {
    if (!b) return false;
    const auto found = component.find(b);
    return found != component.end() && found->second == component.at(a);
  };
  for (const ProtoMessageSchema* message : messages) {
    bool releasedType = false;
    message->forEachMaterialisedField([&](const FieldSchemaDescribing& field) {
      const auto& protoField = static_cast<const ProtoFieldSchema&>(field);
      if (sameComponent(message, targetOf(protoField.resolvedType()))) {
        protoField.releaseType();
        releasedType = true;
      }
      if (sameComponent(message, schemaOf(protoField.options()))) protoField.releaseOptions();
    });
    // What was derived from the released types refers to them too.
    if (detail::SchemaAttachment* plans = message->renderingPlans().get(); plans && releasedType) {
      plans->releaseTypes();
    }
  }

  // What is left is acyclic, but a chain of types is as long as the schema makes it: a message
  // freed while it holds the last reference to the next one frees that one from inside its own
  // destructor, one stack frame per link. So the store lets go of its messages referrers first
  // (components are numbered in the order they complete, everything a component reaches before
  // it): each message then goes while the store still holds everything it refers to.
  std::vector<std::pair<size_t, std::shared_ptr<ProtoMessageSchema>>> releaseOrder;
  releaseOrder.reserve(messages.size());
  for (auto& [name, slot] : messageSchemas_) {
    if (slot.materialised()) {
      const size_t number = component.at(slot.schema().get());
      releaseOrder.emplace_back(number, slot.take());
    }
  }
  std::sort(releaseOrder.begin(), releaseOrder.end(),
            [](const auto& a, const auto& b) { return a.first > b.first; });
  for (auto& entry : releaseOrder) entry.second.reset();
}

}  // namespace ostrel
