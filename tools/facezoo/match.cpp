#include "match.h"

#include "arguments.h"
#include "client/failure.h"
#include "client/networks.h"
#include "commands.h"
#include "messages.h"
#include "npy_file.h"
#include "rows.h"
#include "run.h"

#include <Eigen/Core>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

using namespace facezoo;

namespace {

using Matrix = Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

/// Finds the rows of a gallery with the largest cosine similarity to a query, by a comparison with
/// every row.
class Search {
 public:
  Search(const RunOptions& options, std::size_t columns, const std::string& queried,
         std::ostream& out)
      : gallery_(options.gallery),
        names_(readNames(options.gallery, gallery_.rows())),
        nearest_(options.nearest),
        rows_(formatOf(options),
              {{"image", kName},
               {"rank", 4, 0},
               {"row", std::to_string(gallery_.rows()).size(), 0},
               {"match", kName},
               {"cosine", 10, Column::kResult}},
              out) {
    if (gallery_.columns() != columns) {
      throw Failure(options.gallery + ": expected rows of " + std::to_string(columns) +
                    " values, as " + queried + " gives, found " +
                    std::to_string(gallery_.columns()));
    }
    directions_ =
        Eigen::Map<const Matrix>(gallery_.values(), static_cast<Eigen::Index>(gallery_.rows()),
                                 static_cast<Eigen::Index>(columns));
    for (Eigen::Index row = 0; row < directions_.rows(); ++row)
      if (makeUnit(directions_.row(row))) candidates_.push_back(row);
    if (candidates_.empty()) throw Failure(options.gallery + ": every row is zero or not finite");
    if (const std::size_t others = gallery_.rows() - candidates_.size(); others > 0) {
      warn(options.gallery + ": " + std::to_string(others) + " of " +
           std::to_string(gallery_.rows()) + " rows are zero or not finite, and match nothing");
    }
    queries_.resize(kQueries, directions_.cols());
  }

  /// Reports a query that is zero or not finite, and leaves it out.
  void add(const std::string& name, const float* values) {
    auto row = queries_.row(static_cast<Eigen::Index>(waiting_.size()));
    row = Eigen::Map<const Eigen::RowVectorXf>(values, row.size());
    if (!makeUnit(row)) {
      return warn(name + ": expected a descriptor, found one that is zero or not finite");
    }
    waiting_.push_back(name);
    if (waiting_.size() == kQueries) printNearest();
  }

  /// Prints the nearest rows of all queries that wait.
  void printNearest() {
    const auto count = static_cast<Eigen::Index>(waiting_.size());
    const Matrix cosines = queries_.topRows(count) * directions_.transpose();
    const auto most = std::min<std::ptrdiff_t>(nearest_, candidates_.size());
    for (Eigen::Index query = 0; query < count; ++query) {
      const auto cosine = cosines.row(query);
      std::vector<Eigen::Index> best = candidates_;
      std::partial_sort(best.begin(), best.begin() + most, best.end(),
                        [&](Eigen::Index a, Eigen::Index b) {
                          return cosine[a] != cosine[b] ? cosine[a] > cosine[b] : a < b;
                        });
      for (std::ptrdiff_t i = 0; i < most; ++i) {
        rows_.print({{"image", waiting_[query]},
                     {"rank", i + 1},
                     {"row", best[i]},
                     {"match", names_.empty() ? "" : names_[best[i]]},
                     {"cosine", cosine[best[i]]}});
      }
    }
    waiting_.clear();
  }

 private:
  static constexpr std::size_t kQueries = 64, kName = 24;

  /// Scales a row to length 1. @return false if it is zero or not finite
  template <class Row>
  static bool makeUnit(Row&& row) {
    const double length = std::sqrt(row.template cast<double>().squaredNorm());
    if (!std::isfinite(length) || length == 0) return false;
    row = (row.template cast<double>() / length).template cast<float>();
    return true;
  }

  NpyRows gallery_;
  std::vector<std::string> names_;
  int nearest_;
  Rows rows_;
  Matrix directions_, queries_;
  std::vector<Eigen::Index> candidates_;  ///< rows that have a direction
  std::vector<std::string> waiting_;      ///< names of the first rows of `queries_`
};

class Neighbours : public Sink {
 public:
  Neighbours(const RunOptions& options, const NetworkTable& table, ResultFiles& files)
      : search_(options, table.outputCount(), table.name, linesOf(options, files)) {}
  void take(const Result& result) override { search_.add(result.picture, result.values()); }
  void finish() override { search_.printNearest(); }

 private:
  Search search_;
};

void matchRows(const RunOptions& options, const std::string& file) {
  Outputs outputs({options.gallery, namesFileOf(options.gallery), file, namesFileOf(file)});
  const std::unique_ptr<ResultFiles> files =
      wholeFiles(resultPaths(options), outputs, options.force);
  const NpyRows queries(file);
  const std::vector<std::string> names = readNames(file, queries.rows());
  Search search(options, queries.columns(), file, linesOf(options, *files));
  for (std::size_t i = 0; i < queries.rows(); ++i) {
    search.add(names.empty() ? file + " row " + std::to_string(i) : names[i],
               queries.values() + i * queries.columns());
  }
  search.printNearest();
  files->keep();
}

}  // namespace

std::unique_ptr<Sink> neighbours(const RunOptions& options, const NetworkTable& table,
                                 ResultFiles& files) {
  return std::make_unique<Neighbours>(options, table, files);
}

void addMatch(CLI::App& tool) {
  CLI::App* command = tool.add_subcommand(
      "match", "Find the descriptors in a gallery that are most like a picture's");
  const auto options = std::make_shared<RunOptions>();
  const auto queries = std::make_shared<std::string>();
  command
      ->add_option("GALLERY", options->gallery,
                   "NumPy array of descriptors to search, as run writes it")
      ->required();
  CLI::Option* network =
      command
          ->add_option("NET", options->network, "Name of the network that describes the pictures")
          ->check(CLI::IsMember(networkNames()));
  addPictureOptions(*command, *options, false);
  network->needs("--weights");
  command
      ->add_option("--queries", *queries,
                   "Search for the rows of a NumPy array instead of pictures")
      ->type_name("FILE.npy")
      ->excludes(network);
  command->add_option("--nearest", options->nearest, "How many rows to print for each query")
      ->transform(wholeNumber(1, std::numeric_limits<int>::max()))
      ->type_name("K")
      ->capture_default_str();
  addOutputOptions(*command, *options, "Options");
  command->footer(
      "Each query is compared with every row of the gallery; the rows with the largest cosine\n"
      "similarity are printed, the best first. Rows get their names from the file that run\n"
      "writes beside the array (FILE.names.jsonl beside FILE.npy). A row of the "
      "gallery\n"
      "that is zero or not finite matches nothing; such a query is reported and left out.\n"
      "Example: facezoo run LCNN29 -w lcnn.msgpack --features faces.npy faces/ &&"
      " facezoo match faces.npy LCNN29 -w lcnn.msgpack --nearest 2 one.jpg");
  command->callback([options, queries] {
    if (!queries->empty()) return matchRows(*options, *queries);
    if (options->network.empty())
      throw CLI::ValidationError("NET", "expected a network and pictures, or --queries");
    run(*options);
  });
}
