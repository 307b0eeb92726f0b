#include "replica/model/Path.h"

namespace kestrowan::replica::model {

std::optional<Path> Path::fromText(std::string_view text) {
  const bool hasEmptyName =
      text.starts_with('/') || text.ends_with('/') || text.find("//") != std::string_view::npos;
  if (hasEmptyName) return std::nullopt;
  return Path(std::string(text));
}

Path Path::child(std::string_view name) const {
  std::string text = text_;
  if (!text.empty()) text += '/';
  text += name;
  return Path(std::move(text));
}

Path Path::folder() const {
  const auto slash = text_.rfind('/');
  return slash == std::string::npos ? Path() : Path(text_.substr(0, slash));
}

std::string_view Path::name() const {
  const auto slash = text_.rfind('/');
  return std::string_view(text_).substr(slash == std::string::npos ? 0 : slash + 1);
}

bool Path::isAtOrBelow(const Path& other) const {
  if (other.isRoot()) return true;
  return text_.starts_with(other.text_) &&
         (text_.size() == other.text_.size() || text_[other.text_.size()] == '/');
}

Path Path::moved(const Path& from, const Path& to) const {
  if (!isAtOrBelow(from)) return *this;
  return Path(to.text_ + text_.substr(from.text_.size()));
}

}  // namespace kestrowan::replica::model
