#include "client/weight_names.h"

#include "client/weight_exchange.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace facezoo {

namespace {

struct Weight {
  std::string name;  ///< without prefix
  LayerRow layer;
  WeightRole role;
};

/// The weights of one layer, by index.
using Layer = std::vector<std::size_t>;

struct Part {
  const StoredTensor* tensor;
  std::optional<WeightRole> role;  ///< no value if the name does not tell
};
struct Module {
  std::string_view name;
  std::vector<Part> parts;
};

bool isDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

std::string_view takeNumber(std::string_view& text) {
  const auto end = std::find_if_not(text.begin(), text.end(), isDigit);
  std::string_view number = text.substr(0, end - text.begin());
  text.remove_prefix(number.size());
  number.remove_prefix(std::min(number.find_first_not_of('0'), number.size()));
  return number;
}

/// Whether `a` is before `b` if numbers in names are compared as numbers.
bool comesBefore(std::string_view a, std::string_view b) {
  while (!a.empty() && !b.empty()) {
    if (isDigit(a.front()) && isDigit(b.front())) {
      const std::string_view first = takeNumber(a), second = takeNumber(b);
      if (first.size() != second.size()) return first.size() < second.size();
      if (first != second) return first < second;
    } else if (a.front() != b.front()) {
      return a.front() < b.front();
    } else {
      a.remove_prefix(1);
      b.remove_prefix(1);
    }
  }
  return a.size() < b.size();
}

/// The tensors that can be weights, in the order of their modules as far as it is known: the usual
/// writer sorts them by type and name.
std::vector<const StoredTensor*> inOrder(const std::vector<StoredTensor>& tensors) {
  std::vector<const StoredTensor*> ordered;
  for (const StoredTensor& tensor : tensors)
    if (holdsFloats(tensor)) ordered.push_back(&tensor);
  const bool isSorted =
      std::adjacent_find(ordered.begin(), ordered.end(), [](const auto* a, const auto* b) {
        return a->type == b->type && a->name > b->name;
      }) == ordered.end();
  if (isSorted)
    std::stable_sort(ordered.begin(), ordered.end(),
                     [](const auto* a, const auto* b) { return comesBefore(a->name, b->name); });
  return ordered;
}

/// The modules, made of the tensors whose names tell a role.
std::vector<Module> modulesOf(const std::vector<const StoredTensor*>& tensors) {
  struct Known {
    WeightRole role;
    WeightRole normalizing;  ///< in a module that has a variance
  };
  static const std::unordered_map<std::string_view, Known> known = {
      {"weight", {WeightRole::filter, WeightRole::scale}},
      {"kernel", {WeightRole::filter, WeightRole::scale}},
      {"bias", {WeightRole::bias, WeightRole::shift}},
      {"gamma", {WeightRole::scale, WeightRole::scale}},
      {"beta", {WeightRole::shift, WeightRole::shift}},
      {"running_mean", {WeightRole::mean, WeightRole::mean}},
      {"moving_mean", {WeightRole::mean, WeightRole::mean}},
      {"running_var", {WeightRole::variance, WeightRole::variance}},
      {"moving_variance", {WeightRole::variance, WeightRole::variance}}};
  std::vector<Module> modules;
  std::unordered_map<std::string_view, std::size_t> indices;
  std::unordered_set<std::string_view> normalizing;
  for (const StoredTensor* tensor : tensors) {
    const std::string_view name = tensor->name;
    const std::size_t end = name.find_last_of("./");
    if (end == std::string_view::npos) continue;
    const auto found = known.find(name.substr(end + 1));
    if (found == known.end()) continue;
    const std::string_view module = name.substr(0, end);
    const auto [index, isNew] = indices.emplace(module, modules.size());
    if (isNew) modules.push_back({module, {}});
    modules[index->second].parts.push_back({tensor, found->second.role});
    if (found->second.role == WeightRole::variance) normalizing.insert(module);
  }
  for (Module& module : modules) {
    if (normalizing.count(module.name) == 0) continue;
    for (Part& part : module.parts)
      part.role =
          known.at(std::string_view(part.tensor->name).substr(module.name.size() + 1)).normalizing;
  }
  return modules;
}

/// A name for comparisons of its letters and digits only.
std::string plain(std::string_view name) {
  std::string text(name);
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
  return text;
}

std::string layerName(const Weight& weight) {
  return weight.name.substr(0, weight.name.find_last_of('-'));
}

class Matcher {
 public:
  Matcher(const std::vector<StoredTensor>& tensors, const NetworkTable& network)
      : all_(tensors), tensors_(inOrder(tensors)), modules_(modulesOf(tensors_)) {
    forEachWeight(
        network.layers, "",
        [&](const std::string& name, std::size_t, const LayerRow& layer, WeightRole role) {
          weights_.push_back({name, layer, role});
        });
    matches_.resize(weights_.size());
  }

  ProposedNames propose(const std::string& prefix) {
    matchNames(prefix);
    matchModuleNames();
    pairUp(openLayers(), modules_, [&](const Layer& layer) { return describe(layer, true); });
    std::vector<Layer> single;
    for (std::size_t i = 0; i < weights_.size(); ++i)
      if (matches_[i] == nullptr) single.push_back({i});
    pairUp(single, leftOver(), [&](const Layer& layer) { return describe(layer, false); });
    for (std::size_t i = 0; i < weights_.size(); ++i) {
      result_.names.emplace_back(prefix + weights_[i].name, std::nullopt);
      if (matches_[i] != nullptr) result_.names.back().second = matches_[i]->name;
    }
    return std::move(result_);
  }

 private:
  void match(std::size_t weight, const StoredTensor* tensor, std::size_t& count) {
    matches_[weight] = tensor;
    used_.insert(tensor);
    ++count;
  }

  void matchNames(const std::string& prefix) {
    std::unordered_map<std::string_view, const StoredTensor*> byName;
    for (const StoredTensor& tensor : all_) byName.emplace(tensor.name, &tensor);
    for (std::size_t i = 0; i < weights_.size(); ++i)
      if (const auto found = byName.find(prefix + weights_[i].name); found != byName.end())
        match(i, found->second, result_.byName);
  }

  void matchModuleNames() {
    std::unordered_map<std::string, const Module*> byName;
    for (const Module& module : modules_) byName.emplace(plain(module.name), &module);
    for (std::size_t i = 0; i < weights_.size(); ++i) {
      const auto found = byName.find(plain(layerName(weights_[i])));
      if (matches_[i] != nullptr || found == byName.end()) continue;
      if (const StoredTensor* tensor = find(*found->second, i)) match(i, tensor, result_.byName);
    }
  }

  std::vector<Layer> openLayers() const {
    std::vector<Layer> layers;
    std::string last;
    for (std::size_t i = 0; i < weights_.size(); ++i) {
      if (matches_[i] != nullptr) continue;
      if (const std::string name = layerName(weights_[i]); layers.empty() || name != last) {
        layers.emplace_back();
        last = name;
      }
      layers.back().push_back(i);
    }
    return layers;
  }

  /// The tensors that are not matched yet, each as a module of its own.
  std::vector<Module> leftOver() const {
    std::unordered_map<const StoredTensor*, std::optional<WeightRole>> roles;
    for (const Module& module : modules_)
      for (const Part& part : module.parts) roles.emplace(part.tensor, part.role);
    std::vector<Module> single;
    for (const StoredTensor* tensor : tensors_)
      if (used_.count(tensor) == 0) single.push_back({tensor->name, {{tensor, roles[tensor]}}});
    return single;
  }

  /// A text that is the same for layers of equal shapes and, if asked for, roles.
  std::string describe(const Layer& layer, bool withRoles) const {
    std::string text;
    for (const std::size_t weight : layer) {
      if (withRoles) text += std::to_string(static_cast<int>(weights_[weight].role));
      for (const std::size_t size : weightShape(weights_[weight].layer, weights_[weight].role))
        if (size != 1) text += ',' + std::to_string(size);
      text += ';';
    }
    return text;
  }

  const StoredTensor* find(const Module& module, std::size_t weight) const {
    const auto& [name, layer, role] = weights_[weight];
    for (const Part& part : module.parts)
      if (part.role.value_or(role) == role && used_.count(part.tensor) == 0 &&
          fits(*part.tensor, layer, role))
        return part.tensor;
    return nullptr;
  }

  template <class KeyOf>
  void pairUp(const std::vector<Layer>& layers, const std::vector<Module>& modules,
              const KeyOf& keyOf) {
    std::map<std::string, std::vector<const Layer*>> groups;
    for (const Layer& layer : layers) groups[keyOf(layer)].push_back(&layer);
    for (const auto& [key, equals] : groups) {
      const auto suits = [&](const Layer& layer) {
        return [&](const Module& module) {
          return std::all_of(layer.begin(), layer.end(),
                             [&](std::size_t weight) { return find(module, weight) != nullptr; });
        };
      };
      const auto candidates = std::count_if(modules.begin(), modules.end(), suits(*equals[0]));
      std::size_t& count =
          equals.size() == 1 && candidates == 1 ? result_.byShape : result_.byOrder;
      for (const Layer* layer : equals) {
        const auto module = std::find_if(modules.begin(), modules.end(), suits(*layer));
        if (module == modules.end()) continue;
        for (const std::size_t weight : *layer) match(weight, find(*module, weight), count);
      }
    }
  }

  const std::vector<StoredTensor>& all_;
  std::vector<const StoredTensor*> tensors_;
  std::vector<Module> modules_;
  std::vector<Weight> weights_;
  std::vector<const StoredTensor*> matches_;  ///< of the weights; null if there is none yet
  std::unordered_set<const StoredTensor*> used_;
  ProposedNames result_;
};

}  // namespace

ProposedNames proposeNames(const std::vector<StoredTensor>& tensors, const NetworkTable& network,
                           const std::string& prefix) {
  return Matcher(tensors, network).propose(prefix);
}

}  // namespace facezoo
