#include "tools/ozm/OrbitCamera.h"

#include <algorithm>
#include <cmath>

namespace OzmTool {
namespace {

constexpr double kPi = 3.14159265358979323846;

using Vec3 = std::array<double, 3>;

Vec3 Sub(const Vec3& a, const Vec3& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
Vec3 Cross(const Vec3& a, const Vec3& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
double Dot(const Vec3& a, const Vec3& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
Vec3 Normalized(const Vec3& v) {
  const double length = std::sqrt(Dot(v, v));
  return length > 0 ? Vec3{v[0] / length, v[1] / length, v[2] / length} : Vec3{0, 0, 1};
}

// Column-major 4x4 matrices: element (row r, column c) at [c * 4 + r].
using Mat4 = std::array<double, 16>;

Mat4 Multiply(const Mat4& a, const Mat4& b) {
  Mat4 m{};
  for (int c = 0; c < 4; ++c) {
    for (int r = 0; r < 4; ++r) {
      double sum = 0;
      for (int k = 0; k < 4; ++k) sum += a[k * 4 + r] * b[c * 4 + k];
      m[c * 4 + r] = sum;
    }
  }
  return m;
}

Mat4 LookAt(const Vec3& eye, const Vec3& target, const Vec3& up) {
  const Vec3 forward = Normalized(Sub(target, eye));
  const Vec3 right = Normalized(Cross(forward, up));
  const Vec3 trueUp = Cross(right, forward);
  Mat4 m{};
  for (int i = 0; i < 3; ++i) {
    m[i * 4 + 0] = right[i];
    m[i * 4 + 1] = trueUp[i];
    m[i * 4 + 2] = -forward[i];
  }
  m[12] = -Dot(right, eye);
  m[13] = -Dot(trueUp, eye);
  m[14] = Dot(forward, eye);
  m[15] = 1;
  return m;
}

Mat4 Perspective(double fovY, double aspect, double nearZ, double farZ) {
  const double f = 1 / std::tan(fovY / 2);
  Mat4 m{};
  m[0] = f / aspect;
  m[5] = f;
  m[10] = (farZ + nearZ) / (nearZ - farZ);
  m[11] = -1;
  m[14] = 2 * farZ * nearZ / (nearZ - farZ);
  return m;
}

}  // namespace

OrbitCamera::OrbitCamera(const std::array<double, 6>& box, const CameraOptions& options, double aspect)
    : m_options(options), m_aspect(aspect > 0 ? aspect : 1) {
  double squared = 0;
  for (int a = 0; a < 3; ++a) {
    m_target[a] = (box[a] + box[3 + a]) / 2;
    squared += (box[3 + a] - box[a]) * (box[3 + a] - box[a]);
  }
  m_radius = std::sqrt(squared) / 2;
  if (!(m_radius > 0) || !std::isfinite(m_radius)) m_radius = 1;
  const double halfFov = kFieldOfViewDegrees * kPi / 360;
  m_distance = std::max(options.distanceScale, 1e-3) * m_radius / std::sin(halfFov);
  // Everything lies within the bounding sphere.
  m_near = std::max(m_distance - 1.01 * m_radius, 0.001 * m_distance);
  m_far = m_distance + 1.01 * m_radius;
}

CameraView OrbitCamera::At(double seconds) const {
  CameraView view;
  view.angleDegrees = m_options.angleDegrees + m_options.turnDegreesPerSecond * seconds;
  const double azimuth = view.angleDegrees * kPi / 180;
  const double elevation = m_options.elevationDegrees * kPi / 180;
  const Vec3 direction{std::sin(azimuth) * std::cos(elevation), std::sin(elevation),
                       std::cos(azimuth) * std::cos(elevation)};
  const Vec3 eye{m_target[0] + m_distance * direction[0], m_target[1] + m_distance * direction[1],
                 m_target[2] + m_distance * direction[2]};
  // Straight above or below, "up" is the direction the camera would otherwise face.
  const Vec3 up =
      std::fabs(std::cos(elevation)) < 1e-6 ? Vec3{-std::sin(azimuth), 0, -std::cos(azimuth)} : Vec3{0, 1, 0};
  const Mat4 matrix =
      Multiply(Perspective(kFieldOfViewDegrees * kPi / 180, m_aspect, m_near, m_far), LookAt(eye, m_target, up));
  for (size_t i = 0; i < 16; ++i) view.viewProjection[i] = static_cast<float>(matrix[i]);
  for (size_t i = 0; i < 3; ++i) view.eye[i] = static_cast<float>(eye[i]);
  // A light above the camera and to its right, so that the side facing the camera is lit and its
  // relief shows.
  const Vec3 right = Normalized(Cross(Sub(m_target, eye), up));
  const Vec3 trueUp = Normalized(Cross(right, Sub(m_target, eye)));
  const Vec3 light =
      Normalized({direction[0] + 0.6 * trueUp[0] + 0.4 * right[0], direction[1] + 0.6 * trueUp[1] + 0.4 * right[1],
                  direction[2] + 0.6 * trueUp[2] + 0.4 * right[2]});
  for (size_t i = 0; i < 3; ++i) view.light[i] = static_cast<float>(light[i]);
  return view;
}

}  // namespace OzmTool
