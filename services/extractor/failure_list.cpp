// Keeps the latest failures.
#include "services/extractor/failure_list.h"

#include <utility>

namespace extractor {

FailureList::Identity FailureList::IdentityOf(const Attributes& attributes) {
  return {attributes.inode,       attributes.size_bytes, attributes.modified,
          attributes.modified_ns, attributes.changed,    attributes.changed_ns};
}

void FailureList::Add(const Identity& content, Failure failure) {
  const bool is_new = failures_.insert_or_assign(content, std::move(failure)).second;
  if (!is_new) {
    return;
  }
  order_.push_back(content);
  if (order_.size() > most_) {
    failures_.erase(order_.front());
    order_.pop_front();
  }
}

void FailureList::ForEach(const std::function<void(const Identity&, const Failure&)>& visit) const {
  for (const Identity& content : order_) {
    visit(content, failures_.at(content));
  }
}

const FailureList::Failure* FailureList::Find(const Identity& content) const {
  const auto found = failures_.find(content);
  return found != failures_.end() ? &found->second : nullptr;
}

}  // namespace extractor
