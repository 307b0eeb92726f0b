// What a tree of items in step costs: memory for each item, the time to build it, and the times of
// an edit of one item and of a look at a place.
//
//   bench_tree [ITEMS]     1,000,000 when no number is given, in folders of 1,000

#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "replica/model/Edit.h"
#include "replica/model/View.h"

namespace {

using namespace kestrowan::replica::model;

constexpr int kInFolder = 1000;
constexpr int kRounds = 100'000;

class NoJournal : public Journal {
 public:
  void write(const Changes&) override {}
};

std::size_t residentBytes() {
  std::size_t total = 0;
  std::size_t resident = 0;
  std::FILE* file = std::fopen("/proc/self/statm", "r");
  if (!file || std::fscanf(file, "%zu %zu", &total, &resident) != 2) std::abort();
  std::fclose(file);
  return resident * 4096;
}

/// Of 20 characters.
std::string nameOf(int number) {
  char text[32];
  std::snprintf(text, sizeof text, "document %07d.txt", number);
  return text;
}

There stateOf(const Place& place, bool isFile, int number) {
  There there;
  there.place = place;
  if (isFile) {
    char version[40];
    std::snprintf(version, sizeof version, "\"%x-5f3c1d2e4%05x\"", 0x10000 + number,
                  number & 0xfffff);
    there.version = {version};
    there.size = number;
  }
  there.date = Date(std::chrono::seconds(1'700'000'000 + number));
  there.capabilities = 63;
  return there;
}

void add(Edit& edit, Kind kind, const Place& place, int number) {
  const ItemNumber item = edit.make(kind);
  const There there = stateOf(place, kind == Kind::file, number);
  edit.setHere(item, Here{there.place, Content::none});
  edit.setThere(item, there);
  edit.setAgreed(item, edit->item(item).there());
}

void build(Tree& tree, int items) {
  for (int made = 0; made < items;) {
    Edit edit(tree);
    const Place place{ItemNumber::root, nameOf(made)};
    add(edit, Kind::folder, place, made++);
    const ItemNumber folder = edit->hereAt(place)->number();
    for (int i = 1; i < kInFolder && made < items; ++i, ++made) {
      add(edit, Kind::file, {folder, nameOf(made)}, made);
    }
    edit.commit();
  }
}

/// Microseconds a round.
template <class Run>
double timeOf(int rounds, Run run) {
  const auto began = std::chrono::steady_clock::now();
  for (int i = 0; i < rounds; ++i) run(i);
  const std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - began;
  return took.count() / rounds;
}

void changeContents(Tree& tree, int i, int items) {
  Edit edit(tree);
  const ItemNumber number{2 +
                          static_cast<std::uint64_t>(i) * 7919 % static_cast<std::uint64_t>(items)};
  const Item& item = edit->item(number);
  if (item.isFolder()) return;
  const Here here{item.here()->place, Content{static_cast<std::uint64_t>(i) + 1}};
  edit.setHere(number, here);
  edit.commit();
}

}  // namespace

int main(int count, char** arguments) {
  const int items = count > 1 ? std::atoi(arguments[1]) : 1'000'000;
  const std::size_t residentBefore = residentBytes();
  NoJournal journal;
  Tree tree(journal);
  const double built = timeOf(1, [&](int) { build(tree, items); });
  ::malloc_trim(0);
  std::printf("%d items: %.0f bytes resident each, %.2f s to build\n", items,
              double(residentBytes() - residentBefore) / items, built / 1e6);
  std::size_t found = 0;
  const double look = timeOf(kRounds, [&](int i) {
    const View view(tree);
    const int number =
        static_cast<int>(static_cast<unsigned>(i) * 7919U % static_cast<unsigned>(items));
    const int folder = number / kInFolder * kInFolder;
    const Place place{ItemNumber::root, nameOf(folder)};
    const Item* at = view->hereAt(place);
    if (at && view->hereAt({at->number(), nameOf(number)})) ++found;
  });
  const double edit = timeOf(kRounds, [&](int i) { changeContents(tree, i, items); });
  std::printf("a path of two names: %.2f us (%zu found), an edit of one item: %.2f us\n", look,
              found, edit);
  return 0;
}
