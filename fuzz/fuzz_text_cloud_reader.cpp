// qzrecon's text cloud reader on any bytes: it either refuses the file with
// CloudReadError or gives a cloud of finite coordinates (normals for all
// points or none). Written again as text and read back, the positions are the
// same floats (nine digits carry a float exactly), the normals within the
// seven digits they are written with.

#include <cmath>

#include "CloudFuzz.h"
#include "ShapeCloud.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
  static qzfuzz::MemFile in("cloud.xyzn");
  static qzfuzz::MemFile out("again.xyzn");
  in.assign(data, size);
  qzrecon::OrientedCloud cloud;
  if (!qzfuzz::readOrRefuse(qzrecon::readText, in.path(), cloud))
    return 0;
  qzfuzz::checkAcceptedCloud(cloud);

  qzrecon::writeText(out.path(), cloud);
  qzrecon::OrientedCloud again;
  if (!qzfuzz::readOrRefuse(qzrecon::readText, out.path(), again))
    qzfuzz::fail("our own text file is refused");
  qzfuzz::check(again.points == cloud.points, "positions change when written as text and read again");
  qzfuzz::check(again.normals.size() == cloud.normals.size(), "normals lost or gained on the way");
  for (std::size_t i = 0; i < cloud.normals.size(); ++i)
    qzfuzz::check(std::fabs(again.normals[i] - cloud.normals[i]) <= 1e-6f * std::fabs(cloud.normals[i]),
                  "a normal changes beyond its seven digits");
  return 0;
}
