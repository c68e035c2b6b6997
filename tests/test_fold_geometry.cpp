#include "cTessel.h"
#include "support.h"

namespace {

std::vector<int> listed(int full, int fold, int line) {
  Eigen::VectorXi positions((full + fold - 1) / fold);
  const int n = TS_get_unfolded_positions(full, fold, line, positions);
  for (int i = n; i < positions.size(); ++i) CHECK(positions[i] == -1);
  return {positions.data(), positions.data() + n};
}

}  // namespace

TEST_CASE("Every full line falls onto the folded line that lists it", "[fold]") {
  for (int full = 1; full <= 40; ++full) {
    for (int fold = 1; fold <= full; ++fold) {
      CAPTURE(full, fold);
      std::vector<int> seen(full, -1);
      float compartments[] = {-1, -1};
      get_compartments(full, fold, compartments);
      CHECK((compartments[0] <= compartments[1] && compartments[1] < fold));
      for (int line = 0; line < fold; ++line) {
        const std::vector<int> lines = listed(full, fold, line);
        const int central = (full - fold + 1) / 2 + line;
        const auto up = std::find(lines.begin(), lines.end(), central);
        // Where the central copy sticks out of the full field of view, only lower lines are left.
        CHECK((up != lines.end() || central >= full));
        CHECK(std::is_sorted(lines.begin(), up, std::greater<int>()));
        CHECK(std::is_sorted(up, lines.end()));
        if (up != lines.begin()) CHECK(lines[0] == central - fold);
        for (int pos : lines) {
          CHECK(seen[pos] == -1);
          seen[pos] = line;
        }
      }
      for (int pos = 0; pos < full; ++pos) {
        CHECK(TS_folded_pos(pos, full, fold) == seen[pos]);
        const int off = (full - fold + 1) / 2;
        CHECK(seen[pos] == ((pos - off) % fold + fold) % fold);
      }
    }
  }
}

TEST_CASE("Compartments and alias order of known geometries", "[fold]") {
  struct Case {
    int full, fold;
    float low, high;
    int line;
    std::vector<int> lines;
  };
  for (const Case& c :
       {Case{200, 80, 19, 59, 20, {0, 80, 160}}, Case{200, 80, 19, 59, 60, {40, 120}},
        Case{256, 128, -1, 63, 70, {6, 134}}, Case{256, 64, -1, 31, 40, {72, 8, 136, 200}},
        Case{10, 4, 0, 2, 1, {0, 4, 8}}, Case{7, 4, 0, 1, 1, {3}}, Case{12, 4, -1, 3, 0, {0, 4, 8}},
        Case{9, 9, -1, -1, 8, {8}}}) {
    CAPTURE(c.full, c.fold, c.line);
    float compartments[] = {-1, -1};
    get_compartments(c.full, c.fold, compartments);
    CHECK(compartments[0] == c.low);
    CHECK(compartments[1] == c.high);
    std::vector<int> lines = listed(c.full, c.fold, c.line);
    if (c.full == 12) std::sort(lines.begin(), lines.end());
    CHECK(lines == c.lines);
  }
}

TEST_CASE("A position list that is too short is filled, not overrun", "[fold]") {
  Eigen::VectorXi two(2);
  CHECK(TS_get_unfolded_positions(9, 2, 0, two) == 2);
}
