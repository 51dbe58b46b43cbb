#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillon {

// A URL: file URLs for package and cache locations, and the general URLs that
// values may hold. A URL is its string relative to an optional base URL; a
// file URL's absolute string is "file://" followed by the percent-encoded
// absolute path, and a folder's ends in "/". Immutable; cheap to copy.
class Url {
 public:
  Url() = default;
  // A file URL for an absolute path; relative paths are taken against the
  // current directory. Folders end in "/".
  static Url fileURL(std::string_view path, bool isDirectory = false);
  // Parses a URL string, optionally relative to a base. nullopt for an empty
  // string or one with characters that cannot appear in a URL.
  static std::optional<Url> parse(std::string_view text, const Url* base = nullptr);

  bool isEmpty() const { return relative_.empty(); }
  // The string as given (relative to the base when there is one).
  const std::string& relativeString() const { return relative_; }
  std::string absoluteString() const;
  const Url* baseURL() const { return base_.get(); }
  Url absoluteURL() const;

  std::string scheme() const;
  std::string host() const;
  bool isFileURL() const;
  // The percent-decoded path, without a trailing "/" (except for "/" itself).
  std::string path() const;
  bool hasDirectoryPath() const;
  std::vector<std::string> pathComponents() const;  // "/" first for absolute paths
  std::string lastPathComponent() const;
  std::string pathExtension() const;
  Url appending(std::string_view component, bool isDirectory = false) const;
  Url appendingPathExtension(std::string_view extension) const;
  Url deletingLastPathComponent() const;
  Url deletingPathExtension() const;
  // The same file URL with or without the trailing "/".
  Url asDirectory(bool isDirectory) const;

  bool operator==(const Url& o) const { return absoluteString() == o.absoluteString(); }

  static std::string percentEncodePath(std::string_view path);
  static std::string percentDecode(std::string_view text);

 private:
  std::string relative_;
  std::shared_ptr<const Url> base_;
};

}  // namespace quillon
