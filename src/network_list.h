/// @file
/// The list of all networks. Whatever does something for each network goes through this list.
#pragma once

#include "facezoo.h"
#include "network_table.h"

#include <array>

namespace facezoo {

/// A network's class and what it is made of.
template <class Net, const NetworkTable& itsTable>
struct NetworkEntry {
  using Class = Net;
  static constexpr const NetworkTable& table = itsTable;
};

template <class... Entries>
struct NetworkList {
  static constexpr const NetworkTable* tables[] = {&Entries::table...};

  /// What `make` returns for each entry.
  template <class Make>
  static constexpr auto map(const Make& make) {
    return std::array{make(Entries())...};
  }
};

using Networks =
    NetworkList<NetworkEntry<DexpressionNet, dexpressionNet>, NetworkEntry<FANet, faNet>,
                NetworkEntry<GoogLeNet, googLeNet>, NetworkEntry<GoogLeNetBN, googLeNetBN>,
                NetworkEntry<GoogLeNet_FAA1ch, googLeNetFAA1ch>,
                NetworkEntry<GoogLeNet_FAA3ch, googLeNetFAA3ch>,
                NetworkEntry<GoogLeNet_FAA3ch_12tasks, googLeNetFAA3ch12tasks>,
                NetworkEntry<LCNN29, lcnn29>>;

inline constexpr const auto& networkTables = Networks::tables;

}  // namespace facezoo
