#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "QZmath/SurfaceAnalysis/Distances.h"
#include "QZmath/SurfaceAnalysis/ProjectorTriangle.h"

using REmath::Point3D;

TEST(Distances, PointToLineAndSegment)
{
  float const p[3] = {1.0f, 2.0f, 3.0f}, q[3] = {0.0f, 0.0f, 3.0f}, dir[3] = {2.0f, 0.0f, 0.0f};
  float const zero[3] = {0.0f, 0.0f, 0.0f};
  EXPECT_FLOAT_EQ(DistancePoint2Line(p, q, dir), 4.0f);
  EXPECT_FLOAT_EQ(DistancePoint2Line(p, q, zero), 5.0f); // from q

  double const a[3] = {0.0, 0.0, 0.0}, b[3] = {4.0, 0.0, 0.0};
  double const inner[3] = {1.0, 3.0, 0.0}, before[3] = {-1.0, 1.0, 0.0}, after[3] = {6.0, 0.0, 1.0};
  double t = -1.0, foot[3];
  EXPECT_TRUE(DistancePoint2Segment(inner, a, b, t) == 9.0 && t == 0.25);
  EXPECT_TRUE(DistancePoint2Segment(inner, a, b, foot) == 9.0 && foot[0] == 1.0 && foot[1] == 0.0);
  // Beyond either end: that end, t 0 or 1.
  EXPECT_TRUE(DistancePoint2Segment(before, a, b, t) == 2.0 && t == 0.0);
  EXPECT_TRUE(DistancePoint2Segment(after, a, b, foot) == 5.0 && foot[0] == 4.0);
  // A zero-length segment: the distance from its start, t = 0.
  EXPECT_TRUE(DistancePoint2Segment(after, a, a, t) == 37.0 && t == 0.0);

  // The float, mixed and feature forms agree; `where` tells the feature (the
  // 2D form below shows -1 inside the span).
  float const fa[3] = {0.0f, 0.0f, 0.0f}, fb[3] = {4.0f, 0.0f, 0.0f};
  float const fin[3] = {1.0f, 3.0f, 0.0f}, fafter[3] = {6.0f, 0.0f, 1.0f};
  float ffoot[3];
  int where = 9;
  EXPECT_TRUE(DistancePoint2Segment(fin, fa, fb) == 9.0f && DistancePoint2Segment(fin, a, b) == 9.0);
  DistancePoint2Segment(fafter, fa, fb, ffoot, where);
  EXPECT_TRUE(where == 1 && ffoot[0] == 4.0f);

  // 2D: z is ignored, the outputs are optional.
  double const p2[3] = {1.0, 3.0, 100.0}, a2[3] = {0.0, 0.0, -5.0}, b2[3] = {4.0, 0.0, 7.0};
  double f2[2];
  EXPECT_DOUBLE_EQ(DistancePoint2Segment2D(p2, a2, b2, t, &where, f2), 9.0);
  EXPECT_EQ(where, -1);
  EXPECT_DOUBLE_EQ(f2[0], 1.0);
  float tf = 0.0f;
  EXPECT_FLOAT_EQ(DistancePoint2Segment2D(fafter, fa, fb, tf, nullptr, static_cast<float *>(nullptr)), 4.0f);
  EXPECT_EQ(tf, 1.0f);
}

TEST(Distances, TwoLines)
{
  // Skew lines: the x axis and the line through (0, 0, 2) along y.
  double const p1[3] = {-1.0, 0.0, 0.0}, d1[3] = {2.0, 0.0, 0.0};
  double const p2[3] = {0.0, 3.0, 2.0}, d2[3] = {0.0, -1.0, 0.0};
  double t[2];
  ASSERT_TRUE(MakeMinDist2Lines(p1, d1, p2, d2, t));
  EXPECT_DOUBLE_EQ(t[0], 0.5);
  EXPECT_DOUBLE_EQ(t[1], 3.0);
  // They miss each other by 2: no meeting within 1, one within 4.01; what is
  // left in delta is the gap between the nearest points.
  double delta[3] = {1.0, 3.0, 2.0};
  EXPECT_FALSE(meetTwoVectors(d1, d2, delta, t, 1.0));
  EXPECT_NEAR(delta[2], 2.0, 1e-12);
  EXPECT_NEAR(delta[0] * delta[0] + delta[1] * delta[1], 0.0, 1e-24);
  double delta2[3] = {1.0, 3.0, 2.0};
  EXPECT_TRUE(meetTwoVectors(d1, d2, delta2, t, 4.01));
  double mid[3];
  makeTwoVectorsMediumPoint(p1, p2, d1, d2, t, mid);
  EXPECT_NEAR(std::fabs(mid[0]) + std::fabs(mid[1]) + std::fabs(mid[2] - 1.0), 0.0, 1e-12);

  // Parallel lines have no answer; meetTwoVectors also refuses about 5
  // degrees and less.
  float const fp1[3] = {0, 0, 0}, fd[3] = {1, 2, 3}, fp2[3] = {1, 0, 0}, fd2[3] = {-2, -4, -6};
  float ft[2];
  EXPECT_FALSE(MakeMinDist2Lines(fp1, fd, fp2, fd2, ft));
  auto meetsAt = [](double degrees)
  {
    double const r = degrees * M_PI / 180.0;
    double const u[3] = {1.0, 0.0, 0.0}, v[3] = {std::cos(r), std::sin(r), 0.0};
    double d[3] = {0.0, 0.0, 0.0}, params[2];
    return meetTwoVectors(u, v, d, params, 1e-12);
  };
  EXPECT_FALSE(meetsAt(4.9));
  EXPECT_TRUE(meetsAt(5.1));
}

TEST(Distances, LineThroughTriangle)
{
  float const a[3] = {0, 0, 0}, b[3] = {4, 0, 0}, c[3] = {0, 4, 0}, down[3] = {0, 0, -2};
  float const o1[3] = {1, 1, 5}, onEdge[3] = {2, 2, 5}, vertex[3] = {4, 0, 1}, outside[3] = {3, 3, 5};
  float hit[3];
  ASSERT_TRUE(IntersectTriangLine(a, b, c, o1, down, hit));
  EXPECT_TRUE(hit[0] == 1.0f && hit[1] == 1.0f && hit[2] == 0.0f);
  EXPECT_TRUE(IntersectTriangLine(a, b, c, onEdge, down, hit));
  EXPECT_TRUE(IntersectTriangLine(a, b, c, vertex, down, hit));
  EXPECT_FALSE(IntersectTriangLine(a, b, c, outside, down, hit));
  // In the plane, or a degenerate triangle: no intersection.
  float const along[3] = {1, 0, 0}, inPlane[3] = {-1, 1, 0};
  EXPECT_FALSE(IntersectTriangLine(a, b, c, inPlane, along, hit));
  EXPECT_FALSE(IntersectTriangLine(a, b, b, o1, down, hit));

  bool inside = false;
  float over = -1.0f, dist2 = -1.0f;
  ASSERT_TRUE(IntersectTriangLineFree(a, b, c, o1, down, hit, 0.0f, inside, &over, &dist2));
  EXPECT_TRUE(inside && over == 0.0f && dist2 == 0.0f);
  // Just across the hypotenuse: s + t = 1.05. The margin 0.1 accepts it.
  float const near[3] = {2.1f, 2.1f, 5};
  EXPECT_FALSE(IntersectTriangLineFree(a, b, c, near, down, hit, 0.0f, inside, &over, &dist2));
  ASSERT_TRUE(IntersectTriangLineFree(a, b, c, near, down, hit, 0.1f, inside, &over, &dist2));
  EXPECT_FALSE(inside);
  EXPECT_NEAR(over, 0.05f, 1e-6f);
  EXPECT_NEAR(dist2, 0.02f, 1e-6f); // to the hypotenuse
  // Beyond a vertex, outside every edge's span: the vertex.
  float const corner[3] = {-0.3f, -0.4f, 5};
  ASSERT_TRUE(IntersectTriangLineFree(a, b, c, corner, down, hit, 0.2f, inside, nullptr, &dist2));
  EXPECT_NEAR(dist2, 0.25f, 1e-6f);
  EXPECT_FALSE(IntersectTriangLineFree(a, b, c, inPlane, along, hit, 0.5f, inside, nullptr, nullptr));
}

// Two independent measures agree: the segment distances and the height in
// world coordinates, and the cached triangle's in-plane distances in its own
// frame. Off the face the first is exactly the least segment distance.
TEST(Distances, PointToTriangleTwoWays)
{
  std::mt19937 rng(21);
  std::uniform_real_distribution<float> u(-2.0f, 2.0f);
  int faces = 0;
  for (int rep = 0; rep < 300; ++rep)
  {
    float v[3][3], p[3], foot[3];
    for (auto & row : v)
      for (float & x : row)
        x = u(rng);
    for (float & x : p)
      x = 1.5f * u(rng);
    float const * const vp[3] = {v[0], v[1], v[2]};
    Point3D const pts[3] = {Point3D(v[0]), Point3D(v[1]), Point3D(v[2])};
    float const d = distancePointTriangle2(p, pts);
    REmath::CProjectorTriangle const tri(v[0], v[1], v[2], rep);
    EXPECT_NEAR(tri.DistToTriangle2Precalced(p), d, 1e-5 * (1.0 + d));
    EXPECT_EQ(tri.DistToTriangle2(p), tri.DistToTriangle2Precalced(p));
    EXPECT_EQ(tri.GetMark(), rep);
    int where = 99;
    EXPECT_EQ(distancePointTriangle2(p, vp, where, foot), d);
    double fd = 0.0;
    for (int k = 0; k < 3; ++k)
      fd += (foot[k] - p[k]) * double(foot[k] - p[k]);
    EXPECT_NEAR(fd, d, 1e-4 * (1.0 + d));
    ASSERT_TRUE(where >= TRIANGLE_FACE && where <= TRIANGLE_EDGE20);
    faces += where == TRIANGLE_FACE;
    float const edges =
        std::min({DistancePoint2Segment(p, vp[0], vp[1]), DistancePoint2Segment(p, vp[1], vp[2]),
                  DistancePoint2Segment(p, vp[2], vp[0])});
    EXPECT_TRUE(where == TRIANGLE_FACE ? d <= edges : d == edges);
  }
  EXPECT_GT(faces, 20);
}

TEST(Distances, TriangleFeatures)
{
  float const v0[3] = {0, 0, 0}, v1[3] = {4, 0, 0}, v2[3] = {0, 4, 0};
  float const * const v[3] = {v0, v1, v2};
  float const over[3] = {1, 1, 3}, pastV1[3] = {5, -1, 0}, byEdge12[3] = {3, 3, 0}, byEdge01[3] = {2, -1, 1};
  int where = 99;
  float foot[3];
  EXPECT_FLOAT_EQ(distancePointTriangle2(over, v, where, foot), 9.0f);
  EXPECT_EQ(where, TRIANGLE_FACE);
  EXPECT_EQ(foot[2], 0.0f);
  EXPECT_FLOAT_EQ(distancePointTriangle2(pastV1, v, where, foot), 2.0f);
  EXPECT_EQ(where, 1);
  EXPECT_FLOAT_EQ(distancePointTriangle2(byEdge12, v, where, foot), 2.0f);
  EXPECT_EQ(where, TRIANGLE_EDGE12);
  EXPECT_FLOAT_EQ(foot[0], 2.0f);
  EXPECT_FLOAT_EQ(distancePointTriangle2(byEdge01, v, where, foot), 2.0f);
  EXPECT_EQ(where, TRIANGLE_EDGE01);

  // Degenerate triangles: measured by their edges, no division by zero.
  float const * const flat[3] = {v0, v1, v1};
  EXPECT_FLOAT_EQ(distancePointTriangle2(over, flat, where, foot), 10.0f);
  REmath::CProjectorTriangle const point(v0, v0, v0), line(v0, v1, v1);
  EXPECT_FLOAT_EQ(static_cast<float>(point.DistToTriangle2Precalced(over)), 11.0f);
  EXPECT_FLOAT_EQ(static_cast<float>(line.DistToTriangle2Precalced(over)), 10.0f);
  EXPECT_DOUBLE_EQ(REmath::CProjectorTriangle(v0, v1, v2).GetMaxSideLen2(), 32.0);
}
