#include "loomwork/notifications/NPProcessingContext.h"

namespace loomwork {

void NPProcessingContext::setProcessingStateForNode(int64_t state, const Ref<Object>& node) {
  if (!node) return;
  if (state != NPProcessingStateProcessing && state != NPProcessingStateProcessed) {
    states_.erase(node.get());
    return;
  }
  auto [entry, inserted] = states_.try_emplace(node.get(), Entry{node, state});
  if (!inserted) entry->second.state = state;
}

int64_t NPProcessingContext::processingStateForNode(const Object& node) const {
  auto found = states_.find(&node);
  return found == states_.end() ? NPProcessingStateNotVisited : found->second.state;
}

std::vector<Ref<Object>> NPProcessingContext::nodesInState(int64_t state) const {
  std::vector<Ref<Object>> nodes;
  for (const auto& [key, entry] : states_) {
    if (entry.state == state) nodes.push_back(entry.node);
  }
  return nodes;
}

}  // namespace loomwork
