// qzrecon's PLY reader on any bytes: it either refuses the file with
// CloudReadError or gives a cloud of finite coordinates (normals for all
// points or none) that our PLY writer and the reader carry over bit for bit.

#include <cmath>
#include <cstring>

#include "CloudFuzz.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
  static qzfuzz::MemFile in("cloud.ply");
  static qzfuzz::MemFile out("again.ply");
  in.assign(data, size);
  qzrecon::OrientedCloud cloud;
  if (!qzfuzz::readOrRefuse(qzrecon::readPly, in.path(), cloud))
    return 0;
  qzfuzz::checkAcceptedCloud(cloud);

  qzrecon::writePly(out.path(), cloud);
  qzrecon::OrientedCloud const again = qzrecon::readPly(out.path());
  auto sameBits = [](std::vector<float> const & a, std::vector<float> const & b)
  { return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), 4 * a.size()) == 0); };
  qzfuzz::check(sameBits(again.points, cloud.points) && sameBits(again.normals, cloud.normals),
                "the cloud does not survive writing and reading again");
  return 0;
}
