// Sensitivity maps from calibration data, against a naive version: the whole calibration matrix, all of
// its singular vectors, and each voxel's matrix decomposed by itself.
#include <omp.h>

#include <Eigen/Dense>
#include <complex>
#include <numbers>
#include <random>
#include <vector>

#include "ctessel.hpp"
#include "support.h"

namespace {

using Complex = std::complex<double>;
using Pairs = std::vector<std::complex<float>>;
constexpr double kTurn = 2 * std::numbers::pi;

struct Box {
  int n[3];
  int count() const { return n[0] * n[1] * n[2]; }
  Eigen::Vector3i at(int i) const { return {i % n[0], i / n[0] % n[1], i / n[0] / n[1]}; }
};

/// k-space of blobs in a field of view, seen by coils whose sensitivities are slow waves.
Pairs calibration(const Box& box, int coils, float noise = 0) {
  std::mt19937 engine(7);
  std::normal_distribution<float> random;
  Pairs out(box.count() * coils);
  for (int c = 0; c < coils; ++c) {
    for (int i = 0; i < box.count(); ++i) {
      Complex sum = 0;
      for (int blob = 0; blob < 9; ++blob) {
        double phase = 0.4 * blob + c * (0.3 + 0.1 * blob), width = 0;
        for (int d = 0; d < 3; ++d) {
          const double k = box.at(i)(d) - box.n[d] / 2;
          const double place = (blob * (d + 2) % 9 - 4) / 20.0;
          phase += kTurn * k * place;
          width += k * k * 0.004;
        }
        sum += std::polar(1.0 + 0.5 * std::sin(blob + 2.0 * c), -phase) * std::exp(-width);
      }
      out[c * box.count() + i] =
          std::complex<float>(sum) + noise * std::complex<float>(random(engine), random(engine));
    }
  }
  return out;
}

/// The matrix of one voxel, from the projection onto the signal space.
struct Naive {
  Box box, kernel, steps;
  int coils;
  Eigen::MatrixXcd projection;

  Naive(const Pairs& data, const Box& n, int nc, int size, double threshold)
      : box(n), kernel(n), steps(n), coils(nc) {
    for (int d = 0; d < 3; ++d) {
      kernel.n[d] = std::min(n.n[d], size);
      steps.n[d] = n.n[d] - kernel.n[d] + 1;
    }
    const int k = kernel.count();
    Eigen::MatrixXcd rows(steps.count(), k * coils);
    for (int r = 0; r < rows.rows(); ++r) {
      for (int c = 0; c < rows.cols(); ++c) {
        const Eigen::Vector3i at = steps.at(r) + kernel.at(c % k);
        rows(r, c) = data[at(0) + n.n[0] * (at(1) + n.n[1] * (at(2) + n.n[2] * (c / k)))];
      }
    }
    const Eigen::JacobiSVD<Eigen::MatrixXcd> svd(rows, Eigen::ComputeThinV);
    const auto& s = svd.singularValues();
    int rank = 0;
    while (rank < s.size() && s(rank) * s(rank) > threshold * s(0) * s(0)) ++rank;
    const Eigen::MatrixXcd space = svd.matrixV().leftCols(rank);
    projection = (space * space.adjoint()).conjugate();
  }

  Eigen::MatrixXcd voxel(const Eigen::Vector3i& at, const Box& size) const {
    const int k = kernel.count();
    const auto phase = [&](int i) {
      double cycles = 0;
      for (int d = 0; d < 3; ++d) {
        cycles += double(kernel.at(i % k)(d)) * (at(d) - size.n[d] / 2) / size.n[d];
      }
      return std::polar(1.0, kTurn * cycles);
    };
    Eigen::MatrixXcd out = Eigen::MatrixXcd::Zero(coils, coils);
    for (int i = 0; i < k * coils; ++i) {
      for (int j = 0; j < k * coils; ++j) {
        out(i / k, j / k) += projection(i, j) * phase(i) * std::conj(phase(j)) / double(k);
      }
    }
    return out;
  }
};

struct Maps {
  Pairs maps;
  std::vector<float> eigenvalue;
};

Maps ours(const Pairs& data, const Box& box, int coils, const Box& size,
          ctessel::EspiritOptions options = {}, int sets = 1) {
  Maps out{Pairs(size.count() * coils * sets, {-9, -9}),
           std::vector<float>(size.count() * sets, -9)};
  const ctessel::Extents extents{size.n[0], size.n[1], size.n[2], sets};
  options.eigenvalue = ctessel::Samples::parts(out.eigenvalue.data(), nullptr, extents);
  ctessel::espirit(
      ctessel::ConstSamples::pairs(data.data(), {box.n[0], box.n[1], box.n[2], coils}),
      ctessel::Samples::pairs(out.maps.data(), {size.n[0], size.n[1], size.n[2], coils, sets}),
      options);
  return out;
}

}  // namespace

TEST_CASE("espirit agrees with the naive version", "[espirit]") {
  struct Case {
    Box box, size;
    int coils, kernel;
    float noise;
  };
  for (const Case& c :
       {Case{{{12, 11, 1}}, {{16, 13, 1}}, 4, 4, 0.02f},
        Case{{{9, 8, 7}}, {{9, 10, 8}}, 3, 3, 0.0f}, Case{{{16, 3, 1}}, {{15, 20, 1}}, 3, 4, 0.0f},
        Case{{{9, 9, 1}}, {{12, 12, 1}}, 1, 3, 0.01f}}) {
    CAPTURE(c.coils, c.kernel);
    const double threshold = c.noise > 0 ? 0.02 : 1e-3;
    const Pairs data = calibration(c.box, c.coils, c.noise);
    const Naive naive(data, c.box, c.coils, c.kernel, threshold);
    ctessel::EspiritOptions options;
    options.kernel = c.kernel;
    options.threshold = threshold;
    options.crop = 0.5;
    const int sets = std::min(2, c.coils), count = c.size.count();
    const Maps got = ours(data, c.box, c.coils, c.size, options, sets);
    const Maps one = ours(data, c.box, c.coils, c.size, options);
    CHECK(differences(Pairs(got.maps.begin(), got.maps.begin() + count * c.coils), one.maps) == "");
    int inside = 0, twice = 0;
    for (int i = 0; i < c.size.count(); ++i) {
      const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXcd> solver(
          naive.voxel(c.size.at(i), c.size));
      const double largest = solver.eigenvalues()(c.coils - 1);
      const double next = c.coils > 1 ? solver.eigenvalues()(c.coils - 2) : 0;
      Eigen::MatrixXcd both(c.coils, sets);
      for (int k = 0; k < c.coils * sets; ++k) both(k) = Complex(got.maps[k * count + i]);
      const Eigen::VectorXcd map = both.col(0);
      // Two eigenvalues of an object that folds onto itself: the sets span the vectors of both.
      const double third = c.coils > 2 ? solver.eigenvalues()(c.coils - 3) : 0;
      if (next > 0.55 && third < 0.5 * next) {
        ++twice;
        CHECK(got.eigenvalue[count + i] == Approx(next).epsilon(0.01));
        CHECK((both.adjoint() * both).isIdentity(1e-5));
        for (int k : {1, 2}) {
          CHECK((both.adjoint() * solver.eigenvectors().col(c.coils - k)).norm() > 0.99);
        }
      }
      if (sets > 1 && got.eigenvalue[count + i] <= 0.5f) CHECK(both.col(1).norm() == 0);
      if (got.eigenvalue[i] <= 0.5f) CHECK(map.norm() == 0);
      if (largest < 0.9 || next > 0.5 * largest) continue;  // products separate such pairs slowly
      ++inside;
      CHECK(got.eigenvalue[i] == Approx(largest).epsilon(2e-3));
      CHECK(std::abs(solver.eigenvectors().col(c.coils - 1).dot(map)) == Approx(1).margin(2e-3));
    }
    CHECK(inside > count / 50);
    CHECK((twice > 0 || c.noise == 0 || c.coils == 1));
  }
}

TEST_CASE("espirit gives the phase of the coils' weighted sum", "[espirit]") {
  const Box box{{16, 16, 1}};
  const Pairs data = calibration(box, 4);
  const Maps got = ours(data, box, 4, box);
  int inside = 0;
  for (int i = 0; i < box.count(); ++i) {
    Complex projected = 0, weighted = 0;
    for (int c = 0; c < 4; ++c) {
      Complex low = 0;
      for (int k = 0; k < box.count(); ++k) {
        double cycles = 0, window = 1;
        for (int d = 0; d < 2; ++d) {
          const double at = box.at(k)(d) - 8;
          cycles += at * (box.at(i)(d) - 8) / 16.0;
          window *= 0.5 + 0.5 * std::cos(kTurn * at / 17);
        }
        low += window * Complex(data[c * box.count() + k]) * std::polar(1.0, kTurn * cycles);
      }
      projected += std::conj(Complex(got.maps[c * box.count() + i])) * low;
      weighted += std::abs(low) * low;
    }
    if (got.eigenvalue[i] <= 0.8f) continue;
    ++inside;
    CHECK(std::abs(std::arg(projected * std::conj(weighted))) < 1e-4);
  }
  CHECK(inside > 20);
}

TEST_CASE("espirit's bits depend on neither threads nor layout", "[espirit]") {
  const Box box{{12, 12, 5}}, size{{13, 17, 6}};
  const Pairs data = calibration(box, 3, 0.05f);
  ctessel::EspiritOptions options;
  options.kernel = 3;
  const int before = omp_get_max_threads();
  omp_set_num_threads(1);
  const Maps want = ours(data, box, 3, size, options, 2);
  for (int threads : {2, 3, 7}) {
    omp_set_num_threads(threads);
    const Maps got = ours(data, box, 3, size, options, 2);
    CHECK(differences(got.maps, want.maps) == "");
    CHECK(differences(got.eigenvalue, want.eigenvalue) == "");
  }
  omp_set_num_threads(before);
  std::vector<float> re(data.size()), im(data.size()), out(2 * want.maps.size());
  ctessel::copy(ctessel::ConstSamples::pairs(data.data(), {12, 12, 5, 3}),
                ctessel::Samples::parts(re.data(), im.data(), {12, 12, 5, 3}, ctessel::Order::c));
  const ctessel::Extents extents{13, 17, 6, 3, 2};
  const auto parts = ctessel::Samples::parts(out.data(), out.data() + want.maps.size(), extents,
                                             ctessel::Order::c);
  ctessel::espirit(
      ctessel::ConstSamples::parts(re.data(), im.data(), {12, 12, 5, 3}, ctessel::Order::c), parts,
      options);
  Pairs in_pairs(want.maps.size());
  ctessel::copy(parts, ctessel::Samples::pairs(in_pairs.data(), extents));
  CHECK(differences(in_pairs, want.maps) == "");
}

TEST_CASE("espirit refuses what it cannot use, before it writes", "[espirit]") {
  const Box box{{8, 8, 1}};
  const Pairs data = calibration(box, 2);
  Pairs maps(2 * 64, {5, 5});
  const auto from = ctessel::ConstSamples::pairs(data.data(), {8, 8, 1, 2});
  const auto to = ctessel::Samples::pairs(maps.data(), {8, 8, 1, 2});
  const auto refused = [&](auto change) {
    ctessel::EspiritOptions options;
    ctessel::ConstSamples lines = from;
    ctessel::Samples out = to;
    change(lines, out, options);
    CHECK_THROWS_AS(ctessel::espirit(lines, out, options), std::invalid_argument);
  };
  refused([](auto&, auto&, auto& o) { o.kernel = 0; });
  refused([](auto&, auto&, auto& o) { o.threshold = 0; });
  refused([](auto&, auto&, auto& o) { o.threshold = std::nan(""); });
  refused([](auto&, auto&, auto& o) { o.crop = 1.5; });
  refused([](auto&, auto& out, auto&) { out.extents[3] = 1; });
  refused([](auto&, auto& out, auto&) {
    out = {out.re, out.im, {8, 8, 1, 2, 3}, {2, 16, 0, 128, 0}};
  });
  refused([](auto& in, auto&, auto&) { in.extents.resize(3); });
  refused([&](auto&, auto&, auto& o) {
    o.eigenvalue =
        ctessel::Samples::parts(reinterpret_cast<float*>(maps.data()), nullptr, {4, 4, 1});
  });
  Pairs broken = data;
  broken[3] = std::nanf("");
  refused([&](auto& in, auto&, auto&) {
    in.re = reinterpret_cast<const float*>(broken.data());
    in.im = in.re + 1;
  });
  CHECK(maps == Pairs(2 * 64, {5, 5}));
  ctessel::EspiritOptions smallest;
  smallest.kernel = 1;
  CHECK_NOTHROW(ctessel::espirit(from, to, smallest));
  // Nothing measured: no object anywhere.
  ctessel::espirit(ctessel::ConstSamples::pairs(Pairs(128).data(), {8, 8, 1, 2}), to);
  CHECK(maps == Pairs(2 * 64));
}
