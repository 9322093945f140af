// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <bit>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "Catalogue.h"

namespace vimbrel {

/// Texts by their keys: "\x04" stands after a context, "\0" between plural forms. "" is the header.
using CatalogueTexts = std::map<std::string, std::string>;

/// The bytes of a compiled catalogue, in this machine's byte order or the other.
inline std::string catalogueBytes(const CatalogueTexts& texts, bool isSwapped = false) {
  std::string bytes;
  const auto add = [&](std::size_t number) {
    auto word = static_cast<std::uint32_t>(number);
    if (isSwapped) word = __builtin_bswap32(word);
    bytes.append(reinterpret_cast<const char*>(&word), sizeof word);
  };
  const std::size_t tables = 28;
  const auto count = texts.size();
  for (const auto word : {std::size_t{0x950412de}, std::size_t{0}, count, tables, tables + 8 * count,
                          std::size_t{0}, tables + 16 * count}) {
    add(word);
  }
  std::string strings;
  const auto place = [&](const std::string& text) {
    add(text.size());
    add(tables + 16 * count + strings.size());
    strings += text + '\0';
  };
  for (const auto& [key, text] : texts) place(key);
  for (const auto& [key, text] : texts) place(text);
  return bytes + strings;
}

/// A catalogue that keeps its own bytes.
inline std::shared_ptr<const Catalogue> madeCatalogue(CatalogueTexts texts) {
  texts.try_emplace("", "Plural-Forms: nplurals=2; plural=(n != 1);\n");
  struct Kept {
    std::string bytes;
    std::unique_ptr<Catalogue> catalogue;
  };
  auto kept = std::make_shared<Kept>();
  kept->bytes = catalogueBytes(texts);
  kept->catalogue = std::make_unique<Catalogue>(*Catalogue::overBytes(kept->bytes));
  return {kept, kept->catalogue.get()};
}

}  // namespace vimbrel
