#include "korimg/measurement/internal/RigidFit.h"

#include <algorithm>
#include <numbers>

#include "korimg/image/internal/Numbers.h"

namespace korimg {

Similarity Joined(const Similarity& first, const Similarity& second) {
  const Point moved = second({first.x, first.y});
  return {first.a * second.a - first.b * second.b, first.a * second.b + first.b * second.a, moved.x, moved.y};
}

Pose PoseOf(const Similarity& map, int width, int height) {
  const Point middle{width * 0.5, height * 0.5}, moved = map(middle);
  return {moved.x - middle.x, moved.y - middle.y, std::atan2(map.b, map.a) * 180 / std::numbers::pi};
}

Similarity MapOf(const Pose& pose, int width, int height) {
  const double angle = pose.degrees * std::numbers::pi / 180;
  Similarity map{std::cos(angle), std::sin(angle)};
  const Point middle{width * 0.5, height * 0.5}, turned = map(middle);
  map.x = middle.x + pose.dx - turned.x;
  map.y = middle.y + pose.dy - turned.y;
  return map;
}

Similarity Fit(const std::vector<Pair>& pairs, bool rigid) {
  double total = 0;
  Point from, to;
  for (const Pair& p : pairs) {
    total += p.weight;
    from = {from.x + p.weight * p.from.x, from.y + p.weight * p.from.y};
    to = {to.x + p.weight * p.to.x, to.y + p.weight * p.to.y};
  }
  from = {from.x / total, from.y / total};
  to = {to.x / total, to.y / total};
  double dot = 0, cross = 0, squares = 0;
  for (const Pair& p : pairs) {
    const double fx = p.from.x - from.x, fy = p.from.y - from.y, tx = p.to.x - to.x, ty = p.to.y - to.y;
    dot += p.weight * (fx * tx + fy * ty);
    cross += p.weight * (fx * ty - fy * tx);
    squares += p.weight * (fx * fx + fy * fy);
  }
  const double size = rigid ? std::hypot(dot, cross) : squares;
  Similarity fit{dot / size, cross / size};
  const Point turned = fit(from);
  fit.x = to.x - turned.x;
  fit.y = to.y - turned.y;
  return fit;
}

double RootMeanSquare(const std::vector<Pair>& pairs, const Similarity& map) {
  double sum = 0;
  for (const Pair& p : pairs) {
    const double d = Distance(map(p.from), p.to);
    sum += d * d;
  }
  return std::sqrt(sum / static_cast<double>(pairs.size()));
}

Similarity RobustFit(std::vector<Pair>& pairs, bool rigid) {
  // The median of distances in a plane is sqrt(2 ln 2) sigma (Rayleigh's distribution); the rest is chosen.
  constexpr int kRounds = 4;
  constexpr double kClip = 4, kSigmaOfMedian = 0.85, kLeast = 0.5;
  Similarity fit = Fit(pairs, rigid);
  for (int round = 0; round < kRounds && pairs.size() > 3; ++round) {
    const auto off = [&](const Pair& p) { return Distance(fit(p.from), p.to) * std::sqrt(p.weight); };
    std::vector<double> offs;
    for (const Pair& p : pairs) {
      offs.push_back(off(p));
    }
    const double most = kClip * std::max(kSigmaOfMedian * UpperMedian(offs), kLeast);
    if (std::erase_if(pairs, [&](const Pair& p) { return off(p) > most; }) == 0) break;
    fit = Fit(pairs, rigid);
  }
  return fit;
}

}  // namespace korimg
