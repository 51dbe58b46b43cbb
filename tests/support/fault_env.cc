#include "support/fault_env.h"

#include <cerrno>

namespace quillon {
namespace {

bool contains(const std::string& path, const std::string& part) {
  return part.empty() || path.find(part) != std::string::npos;
}

}  // namespace

FaultInjectingEnv::FaultInjectingEnv(Env* target) : EnvWrapper(target) {}

void FaultInjectingEnv::failAfter(Op op, std::string_view pathSubstring, int successes, Fault fault,
                                  int failures) {
  std::lock_guard lock(mutex_);
  rules_.push_back(
      Rule{op, std::string(pathSubstring), successes < 0 ? 0 : successes, fault, failures});
}

void FaultInjectingEnv::clearFaults() {
  std::lock_guard lock(mutex_);
  rules_.clear();
}

size_t FaultInjectingEnv::count(Op op) const { return count(op, {}); }

size_t FaultInjectingEnv::count(Op op, std::string_view pathSubstring) const {
  std::lock_guard lock(mutex_);
  std::string part(pathSubstring);
  size_t n = 0;
  for (const auto& r : records_) {
    if (r.op != op) continue;
    if (contains(r.path, part) || (!r.otherPath.empty() && contains(r.otherPath, part))) ++n;
  }
  return n;
}

size_t FaultInjectingEnv::injectedFailures() const {
  std::lock_guard lock(mutex_);
  return injected_;
}

std::vector<FaultInjectingEnv::Operation> FaultInjectingEnv::operations() const {
  std::lock_guard lock(mutex_);
  std::vector<Operation> operations;
  operations.reserve(records_.size());
  for (const auto& r : records_) operations.push_back(Operation{r.op, r.path});
  return operations;
}

void FaultInjectingEnv::resetCounts() {
  std::lock_guard lock(mutex_);
  records_.clear();
  injected_ = 0;
}

bool FaultInjectingEnv::record(Op op, const std::string& path, const std::string& otherPath,
                               Fault* fault) {
  std::lock_guard lock(mutex_);
  records_.push_back(Record{op, path, otherPath});
  if (op == Op::Exists) return false;
  for (auto& rule : rules_) {
    if (rule.op != op || rule.failuresLeft == 0) continue;
    if (!contains(path, rule.pathSubstring) &&
        (otherPath.empty() || !contains(otherPath, rule.pathSubstring))) {
      continue;
    }
    if (rule.successesLeft > 0) {
      --rule.successesLeft;
      return false;
    }
    if (rule.failuresLeft > 0) --rule.failuresLeft;
    ++injected_;
    *fault = rule.fault;
    return true;
  }
  return false;
}

Error FaultInjectingEnv::errorFor(Fault fault, const std::string& path) {
  return Error::posix(fault == Fault::NoSpace ? ENOSPC : EIO, path);
}

Error FaultInjectingEnv::readFile(const std::string& path, std::vector<uint8_t>* contents) {
  Fault fault = Fault::IoError;
  if (!record(Op::Read, path, {}, &fault)) return EnvWrapper::readFile(path, contents);
  if (fault != Fault::ShortRead) {
    contents->clear();
    return errorFor(fault, path);
  }
  Error e = EnvWrapper::readFile(path, contents);
  if (!e) contents->resize(contents->size() / 2);
  return e;
}

Error FaultInjectingEnv::writeFileAtomically(const std::string& path,
                                             std::span<const uint8_t> contents) {
  Fault fault = Fault::IoError;
  if (record(Op::Write, path, {}, &fault)) return errorFor(fault, path);
  return EnvWrapper::writeFileAtomically(path, contents);
}

Error FaultInjectingEnv::writeFileAtomicallyUnflushed(const std::string& path,
                                                     std::span<const uint8_t> contents) {
  Fault fault = Fault::IoError;
  if (record(Op::Write, path, {}, &fault)) return errorFor(fault, path);
  return EnvWrapper::writeFileAtomicallyUnflushed(path, contents);
}

Error FaultInjectingEnv::syncFiles(const std::vector<std::string>& paths) {
  Fault fault = Fault::IoError;
  bool failed = false;
  std::string failedPath;
  for (const auto& path : paths) {
    Fault f = Fault::IoError;
    if (record(Op::Sync, path, {}, &f) && !failed) {
      failed = true;
      fault = f;
      failedPath = path;
    }
  }
  if (failed) return errorFor(fault, failedPath);
  return EnvWrapper::syncFiles(paths);
}

Error FaultInjectingEnv::listDirectory(const std::string& path, std::vector<std::string>* names) {
  Fault fault = Fault::IoError;
  if (record(Op::List, path, {}, &fault)) {
    names->clear();
    return errorFor(fault, path);
  }
  return EnvWrapper::listDirectory(path, names);
}

Error FaultInjectingEnv::createDirectories(const std::string& path) {
  Fault fault = Fault::IoError;
  if (record(Op::CreateDirectories, path, {}, &fault)) return errorFor(fault, path);
  return EnvWrapper::createDirectories(path);
}

Error FaultInjectingEnv::removeItem(const std::string& path) {
  Fault fault = Fault::IoError;
  if (record(Op::Remove, path, {}, &fault)) return errorFor(fault, path);
  return EnvWrapper::removeItem(path);
}

Error FaultInjectingEnv::moveItem(const std::string& from, const std::string& to) {
  Fault fault = Fault::IoError;
  if (record(Op::Move, from, to, &fault)) return errorFor(fault, from);
  return EnvWrapper::moveItem(from, to);
}

Error FaultInjectingEnv::copyItem(const std::string& from, const std::string& to) {
  Fault fault = Fault::IoError;
  if (record(Op::Copy, from, to, &fault)) return errorFor(fault, to);
  return EnvWrapper::copyItem(from, to);
}

Error FaultInjectingEnv::attributes(const std::string& path, FileAttributes* attributes) {
  Fault fault = Fault::IoError;
  if (record(Op::Attributes, path, {}, &fault)) return errorFor(fault, path);
  return EnvWrapper::attributes(path, attributes);
}

bool FaultInjectingEnv::exists(const std::string& path) {
  Fault ignored = Fault::IoError;
  record(Op::Exists, path, {}, &ignored);
  return EnvWrapper::exists(path);
}

}  // namespace quillon
