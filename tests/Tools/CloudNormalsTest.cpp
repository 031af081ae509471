// The normals the tools give a cloud read without them, estimated in place
// as qzrecon and qznormals run it, and the summary they report.

#include <gtest/gtest.h>

#include "CloudNormals.h"
#include "ShapeCloud.h"

using namespace qzrecon;

TEST(CloudNormals, NestedSpheresGetOrientedNormalsAndTheirSummary)
{
  // The inner sphere must face its cavity.
  OrientedCloud const truth = makeShapeCloud(Shape::NestedSpheres, 20000, 6);
  OrientedCloud cloud = truth;
  cloud.normals.clear();
  NormalOptions options;
  options.neighbours = 15;
  NormalsSummary const s = estimateNormals(cloud, options, nullptr);
  // How well they agree with the true ones is the estimation suite's concern.
  ASSERT_EQ(cloud.normals.size(), truth.normals.size());

  nlohmann::ordered_json j = toJson(s);
  EXPECT_GE(j["seconds"].get<double>(), 0.0);
  j.erase("seconds");
  EXPECT_EQ(j.dump(), "{\"estimated\":true,\"neighbours\":15,\"radius\":0.0,\"viewpoint\":null,"
                      "\"degenerate_neighbourhoods\":0,\"duplicate_points\":0,\"components\":2,"
                      "\"inward_components\":1}");
  EXPECT_EQ(toJson(NormalsSummary()).dump(), "{\"estimated\":false}");

  // A viewpoint of three values reaches the estimation.
  options.viewpoint = {0.0, 0.0, 5.0};
  EXPECT_TRUE(options.params().hasViewpoint() && options.params().getViewpoint().z() == 5.0);
}
