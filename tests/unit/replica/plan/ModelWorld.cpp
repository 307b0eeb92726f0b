#include "unit/replica/plan/ModelWorld.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <utility>

#include "replica/plan/Following.h"

namespace kestrowan::test {

ContentSet bit(Content content) {
  return content == Content::none ? 0 : ContentSet{1} << static_cast<unsigned>(content);
}

namespace {

std::string pathHere(const State& state, const Item& item) {
  if (item.number() == ItemNumber::root) return "";
  const Place& place = item.here()->place;
  return pathHere(state, state.item(place.folder)) + "/" + place.name;
}

std::string textOf(const Item& item) {
  const auto state = [](const std::optional<There>& there) {
    if (!there) return std::string("-");
    return std::to_string(static_cast<unsigned>(there->place.folder)) + "/\"" + there->place.name +
           "\" v" + there->version.text + " c" +
           std::to_string(static_cast<unsigned>(there->content));
  };
  std::ostringstream out;
  out << (item.isFile() ? "file " : "folder ") << static_cast<unsigned>(item.number()) << " here ";
  if (item.here()) {
    out << static_cast<unsigned>(item.here()->place.folder) << "/\"" << item.here()->place.name
        << "\" c" << static_cast<unsigned>(item.here()->content);
  } else {
    out << "-";
  }
  out << ", there " << state(item.there()) << ", agreed " << state(item.agreed());
  for (const ItemNumber other : item.after()) out << " after " << static_cast<unsigned>(other);
  return out.str();
}

}  // namespace

std::string ModelWorld::describe() const {
  const View view(tree);
  std::ostringstream out;
  for (const Item* item : allItems(*view)) {
    if (item->number() != ItemNumber::root) out << "    " << textOf(*item) << "\n";
  }
  for (const Intent& intent : view->intents().all()) {
    out << "    intent " << static_cast<unsigned>(intent.verb) << " of "
        << static_cast<unsigned>(intent.item) << " \""
        << (intent.source ? intent.source->text() : "") << "\" -> \""
        << (intent.target ? intent.target->text() : "") << "\" c"
        << static_cast<unsigned>(intent.content) << (intent.isUnderWay() ? " under way" : "")
        << (intent.looked ? " looked" : "") << (intent.over ? " over" : "") << "\n";
  }
  out << "    provider:";
  for (const auto& [path, entry] : provider.tree) {
    if (path.isRoot()) continue;
    out << " \"" << path.text() << "\"" << (entry.kind == Kind::folder ? "/" : "");
    if (entry.kind == Kind::file) {
      out << " v" << entry.version << " c" << static_cast<unsigned>(entry.content);
    }
  }
  out << "\n";
  return out.str();
}

ItemNumber ModelWorld::add(Kind kind, ItemNumber folder, const std::string& name,
                           bool isDownloaded) {
  const Content content = kind == Kind::file ? newContent() : Content::none;
  Edit edit(tree);
  const ItemNumber number = edit.make(kind);
  const Place place{folder, name};
  const Path path = *edit->pathOf(place);
  request(kind == Kind::file ? Verb::put : Verb::makeFolder, std::nullopt, path, content);
  const Content known = isDownloaded ? content : Content::none;
  const There there{place, ModelProvider::versionOf(*provider.at(path)), known};
  edit.setHere(number, Here{place, known});
  edit.setThere(number, there);
  edit.setAgreed(number, there);
  edit.commit();
  return number;
}

bool ModelWorld::request(Verb verb, const std::optional<Path>& source,
                         const std::optional<Path>& target, Content content) {
  if (!provider.request(verb, source, target, content)) return false;
  if (verb == Verb::put) contentOf.push_back(content);
  return true;
}

Content ModelWorld::newContent() {
  const Content content{++lastContent};
  if (lastContent > 62) throw Broken("the world is too small for so many contents");
  wanted |= bit(content);
  return content;
}

/// The bytes that programs see of an item.
Content ModelWorld::shown(const Item& item) const {
  if (item.isFolder() || !item.here()) return Content::none;
  if (item.here()->content != Content::none || !item.agreed()) return item.here()->content;
  return contentOf.at(std::stoul("0" + item.agreed()->version.text));
}

ContentSet ModelWorld::contentsThere() const {
  ContentSet result = 0;
  for (const auto& [path, entry] : provider.tree) result |= bit(entry.content);
  return result;
}

std::string ModelWorld::shownTree() const {
  const View view(tree);
  std::string result;
  std::vector<const Item*> todo{&view->root()};
  while (!todo.empty()) {
    const Item* folder = todo.back();
    todo.pop_back();
    result += ':';
    for (const Item* item : view->hereIn(folder->number())) {
      result += item->here()->place.name;
      result += static_cast<char>(item->kind());
      result += static_cast<char>(shown(*item));
      if (item->isFolder()) todo.push_back(item);
    }
  }
  return result;
}

ContentSet ModelWorld::apply(const Event& event) {
  const bool makes = event.kind == Event::Kind::make || event.kind == Event::Kind::write ||
                     event.kind == Event::Kind::putThere;
  const Content made = makes ? newContent() : Content::none;
  if (!event.isHere()) return changeThere(event, made);
  change(event, made);
  return 0;
}

void ModelWorld::change(const Event& event, Content made) {
  Edit edit(tree);
  switch (event.kind) {
    case Event::Kind::make:
    case Event::Kind::makeFolder: {
      const bool isFile = event.kind == Event::Kind::make;
      edit.setHere(edit.make(isFile ? Kind::file : Kind::folder), Here{event.place, made});
      break;
    }
    case Event::Kind::write:
      forget(shown(edit->item(event.item)));
      edit.setHere(event.item, Here{edit->item(event.item).here()->place, made});
      break;
    case Event::Kind::move:
      edit.setHere(event.item, Here{event.place, edit->item(event.item).here()->content});
      break;
    case Event::Kind::remove:
      forget(shown(edit->item(event.item)));
      edit.setHere(event.item, std::nullopt);
      break;
    case Event::Kind::replace: {
      // What is replaced goes after what replaces it has arrived.
      const Here other = *edit->item(event.other).here();
      forget(shown(edit->item(event.other)));
      if (edit->item(event.other).isFile())
        replica::plan::followReplacement(edit, event.other, event.item);
      edit.setHere(event.other, std::nullopt);
      edit.setHere(event.item, Here{other.place, edit->item(event.item).here()->content});
      break;
    }
    case Event::Kind::swap: {
      const Here first = *edit->item(event.item).here();
      const Here second = *edit->item(event.other).here();
      edit.setHere(event.item, std::nullopt);
      edit.setHere(event.other, Here{first.place, second.content});
      edit.setHere(event.item, Here{second.place, first.content});
      break;
    }
    default:
      break;
  }
  edit.commit();
}

ContentSet ModelWorld::changeThere(const Event& event, Content made) {
  hasChangedThere = isUnseen = true;
  Verb verb = Verb::put;
  if (event.kind == Event::Kind::makeFolderThere) verb = Verb::makeFolder;
  if (event.kind == Event::Kind::moveThere) verb = Verb::move;
  if (event.kind == Event::Kind::removeThere) verb = Verb::remove;
  if (event.kind == Event::Kind::putSameThere) {
    const View view(tree);
    made = view->item(event.item).here()->content;
  }
  const auto* replaced = provider.at(event.target);
  if (verb == Verb::put && replaced) forget(replaced->content);
  if (verb == Verb::remove) {
    for (const Path& path : provider.inside(event.source)) forget(provider.at(path)->content);
  }
  if (event.kind == Event::Kind::putSameThere) wanted |= bit(made);
  if (!request(verb, event.source, event.target, made)) {
    throw Broken("the provider refuses another client");
  }
  ContentSet come = 0;
  if (verb == Verb::remove || verb == Verb::makeFolder) return come;
  for (const Path& path : provider.inside(event.target)) come |= bit(provider.at(path)->content);
  return come;
}

void ModelWorld::judge() const {
  const View view(tree);
  std::map<std::string, std::pair<Kind, Content>> here;
  std::map<std::string, std::pair<Kind, Content>> there;
  ContentSet found = 0;
  std::vector<const Item*> todo{&view->root()};
  std::size_t count = 0;
  while (!todo.empty()) {
    const Item* item = todo.back();
    todo.pop_back();
    ++count;
    here[pathHere(*view, *item)] = {item->kind(), shown(*item)};
    found |= bit(shown(*item));
    if (!item->isInStep()) throw Broken("an item is not in step");
    for (const Item* child : view->hereIn(item->number())) todo.push_back(child);
  }
  for (const auto& [path, entry] : provider.tree) {
    there[path.isRoot() ? "" : "/" + path.text()] = {entry.kind, entry.content};
  }
  if (here != there) throw Broken("here is not there");
  if (count != view->count()) throw Broken("an item is left that is nowhere");
  if (wanted & ~found) throw Broken("contents are lost");
}

}  // namespace kestrowan::test
