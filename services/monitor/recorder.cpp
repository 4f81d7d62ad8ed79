// Decides for each change who gets which line.
#include "services/monitor/recorder.h"

#include <algorithm>

namespace nimotifyd {
namespace {

std::string Join(const std::string& folder, std::string_view name) {
  std::string path = folder == "/" ? std::string() : folder;
  path += '/';
  path += name;
  return path;
}

const ScopeEntry* Find(const std::vector<const ScopeEntry*>& entries, const QueueSink* sink) {
  for (const ScopeEntry* entry : entries) {
    if (entry->sink == sink) {
      return entry;
    }
  }
  return nullptr;
}

}  // namespace

View Recorder::MakeView(uint64_t mount, std::string path) const {
  View view{mount, std::move(path), {}, {}, false};
  AppendEscaped(view.escaped, view.path == "/" ? "" : std::string_view(view.path));
  view.entries = scopes_->EntriesAt(view.path);
  view.holds_queue_files = scopes_->HoldsQueueFiles(view.path);
  return view;
}

std::vector<const ScopeEntry*> Recorder::EntriesFor(const View& view, std::string_view name, bool is_dir) const {
  std::vector<const ScopeEntry*> result;
  if (view.holds_queue_files && scopes_->IsQueueFile(Join(view.path, name))) {
    return result;
  }
  if (is_dir && !name.empty()) {
    const std::string path = Join(view.path, name);
    if (scopes_->IsRegistered(path)) {
      return scopes_->EntriesAt(path);
    }
  }
  for (const ScopeEntry* entry : view.entries) {
    if (name.empty() || !Scopes::Skips(*entry, name)) {
      result.push_back(entry);
    }
  }
  return result;
}

bool Recorder::ReportIn(const View& view, std::string_view name, bool is_dir, uint32_t event) const {
  bool wanted = false;
  for (const ScopeEntry* entry : EntriesFor(view, name, is_dir)) {
    if ((entry->mask & event) != 0) {
      entry->sink->Add(event, is_dir, {view.escaped, name});
    }
    wanted = true;
  }
  return wanted;
}

bool Recorder::Report(const FolderViews& folder, std::string_view name, bool is_dir, uint32_t event) const {
  bool wanted = false;
  for (const View& view : folder) {
    wanted |= ReportIn(view, name, is_dir, event);
  }
  return wanted;
}

bool Recorder::RenameBetween(const View& from, std::string_view old_name, const View& to, std::string_view name,
                             bool is_dir) const {
  const std::vector<const ScopeEntry*> sources = EntriesFor(from, old_name, is_dir);
  const std::vector<const ScopeEntry*> targets = EntriesFor(to, name, is_dir);
  for (const ScopeEntry* target : targets) {
    const ScopeEntry* source = Find(sources, target->sink);
    if (source != nullptr && (source->mask & target->mask & kRename) != 0) {
      target->sink->AddRename(is_dir, {from.escaped, old_name}, {to.escaped, name});
      if (is_dir && source->ignore != target->ignore && (target->mask & kCreate) != 0) {
        target->sink->Add(kCreate, true, {to.escaped, name});  // what was skipped below it may be wanted now
      }
      continue;
    }
    if (source != nullptr && (source->mask & kDelete) != 0) {
      source->sink->Add(kDelete, is_dir, {from.escaped, old_name});
    }
    if ((target->mask & kCreate) != 0) {
      target->sink->Add(kCreate, is_dir, {to.escaped, name});
    }
  }
  for (const ScopeEntry* source : sources) {
    if (Find(targets, source->sink) == nullptr && (source->mask & kDelete) != 0) {
      source->sink->Add(kDelete, is_dir, {from.escaped, old_name});
    }
  }
  return !sources.empty() || !targets.empty();
}

bool Recorder::ReportRename(const FolderViews& from, std::string_view old_name, const FolderViews& to,
                            std::string_view name, bool is_dir) const {
  const bool single = from.size() == 1 && to.size() == 1;
  const auto together = [single](const View& a, const View& b) { return single || a.mount == b.mount; };
  bool wanted = false;
  for (const View& target : to) {
    const auto source = std::find_if(from.begin(), from.end(), [&](const View& v) { return together(v, target); });
    wanted |= source != from.end() ? RenameBetween(*source, old_name, target, name, is_dir)
                                   : ReportIn(target, name, is_dir, kCreate);
  }
  for (const View& source : from) {
    if (std::none_of(to.begin(), to.end(), [&](const View& v) { return together(source, v); })) {
      wanted |= ReportIn(source, old_name, is_dir, kDelete);
    }
  }
  return wanted;
}

}  // namespace nimotifyd
