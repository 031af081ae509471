#pragma once
// What both cloud readers owe any input: a refusal through CloudReadError, or
// a cloud of finite coordinates with normals for all points or none.

#include <cmath>
#include <string>

#include "CloudIO.h"
#include "FuzzSupport.h"

namespace qzfuzz
{
/// Reads `path` with `read`; false when the reader refuses the file.
template <class Read> bool readOrRefuse(Read read, std::string const & path, qzrecon::OrientedCloud & cloud)
{
  try
  {
    cloud = read(path);
    return true;
  }
  catch (qzrecon::CloudReadError const &)
  {
    return false;
  }
}

inline void checkAcceptedCloud(qzrecon::OrientedCloud const & cloud)
{
  check(cloud.points.size() % 3 == 0, "a point with fewer than three coordinates");
  check(cloud.normals.empty() || cloud.hasNormals(), "normals for some points only");
  for (float v : cloud.points)
    check(std::isfinite(v), "a non-finite coordinate was accepted");
  for (float v : cloud.normals)
    check(std::isfinite(v), "a non-finite normal was accepted");
}
} // namespace qzfuzz
