// The camera of `ozm play`: it looks at the centre of the clip's bounding box from a point on a
// sphere around it, turning about the upright (y) axis as the output video plays.
//
// At azimuth 0 the camera is on the +z side of the box (it sees the model's front, where the x axis
// points right and y up); positive angles turn it towards +x. The elevation raises it above the
// box's centre. Its distance fits the box's bounding sphere (radius: half the box's diagonal) into
// the picture's height at distance scale 1: distance = scale * radius / sin(field of view / 2).
#pragma once

#include <array>

namespace OzmTool {

struct CameraOptions {
  double angleDegrees = 0;           // azimuth at the first rendered frame
  double turnDegreesPerSecond = 36;  // of the output video's time: a turn in ten seconds
  double elevationDegrees = 15;
  double distanceScale = 0.8;
};

// Where the camera is for one frame, and the matrices to draw it with (column-major, as GL takes them).
struct CameraView {
  std::array<float, 16> viewProjection{};
  std::array<float, 3> eye{};
  std::array<float, 3> light{};  // unit vector towards the light: above the camera and to its right
  double angleDegrees = 0;
};

class OrbitCamera {
 public:
  static constexpr double kFieldOfViewDegrees = 35;  // vertical

  // box: the least and the greatest corner (x, y, z each); aspect: picture width over height.
  OrbitCamera(const std::array<double, 6>& box, const CameraOptions& options, double aspect);

  // The view `seconds` into the output video.
  CameraView At(double seconds) const;

  const std::array<double, 3>& Target() const { return m_target; }
  double Distance() const { return m_distance; }
  double Radius() const { return m_radius; }
  double Near() const { return m_near; }
  double Far() const { return m_far; }

 private:
  CameraOptions m_options;
  double m_aspect;
  std::array<double, 3> m_target{};
  double m_radius = 1;
  double m_distance = 1;
  double m_near = 0.01, m_far = 100;
};

}  // namespace OzmTool
