#pragma once

#include <string_view>

#include "replica/model/Item.h"

namespace kestrowan::replica::model {

/// A provider may show a name in another Unicode form than it was given. The place of an item has
/// the name that was given; its identifier then tells the other: "./" and the name that is shown.
/// Pure functions.

/// Whether an identifier tells no more than a name.
bool isShownName(std::string_view identifier);

/// The last part of an identifier that follows from the folder's. Good as long as `there`. Not to
/// be asked where the identifier is one of its own.
std::string_view shownName(const There& there);

/// Makes `there`, whose identifier follows from its place, known as `name`.
void giveName(There& there, std::string_view name);

/// Puts `there` at another place. Of another name the form that is shown is not known.
void putAt(There& there, const Place& place);

}  // namespace kestrowan::replica::model
