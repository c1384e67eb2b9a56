// The table of results and goals.
#pragma once

#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace Bench {

// The maximum of a figure: a factor of another figure of its row, or a value.
struct Goal {
  std::string figure;
  std::string other;  // empty: `most` is a value, in the unit of the row
  double most;
};

enum class Unit { seconds, bytes, times };

// One row of the table: contestants that do the same work.
struct Row {
  std::string name;
  std::string title;
  std::vector<std::string> figures;  // "CONTESTANT" or "CONTESTANT FIGURE", in the order of printing
  std::vector<Goal> goals;
  Unit unit = Unit::seconds;  // of the figures
};

// The rows, in the order of printing.
const std::vector<Row>& rows();
// Null if no row has that name.
const Row* findRow(const std::string& name);

// The samples of one run, by row and figure, and the contestants that failed.
class Results {
 public:
  // `contestant` is "ROW/CONTESTANT"; `figure` is empty for the main one.
  void add(const std::string& contestant, const std::string& figure, double value) {
    samples_[figure.empty() ? contestant : contestant + ' ' + figure].push_back(value);
  }
  void fail(const std::string& contestant, const std::string& why) { failures_[contestant] = why; }

  // Null if there are none.
  const std::vector<double>* samples(const std::string& row, const std::string& figure) const;
  const std::map<std::string, std::string>& failures() const { return failures_; }

 private:
  std::map<std::string, std::vector<double>> samples_;
  std::map<std::string, std::string> failures_;
};

// The results of this run.
Results& results();

// A figure with its unit: "59.2 ns", "1.21 KiB", "0.25".
std::string figureText(double value, Unit unit);

// Prints every row that has samples: the median and quartiles of each figure, its ratio to the figure that a
// goal compares it with, the goal, and whether it was reached; then the failures. Returns the number of
// missed goals.
int print(std::ostream& out, const Results& results);

}  // namespace Bench
