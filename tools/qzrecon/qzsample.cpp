// qzsample: writes an oriented point cloud sampled on a simple shape.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <CLI/CLI.hpp>

#include "ShapeCloud.h"

int main(int argc, char ** argv)
{
  CLI::App app("Writes an oriented point cloud (x y z nx ny nz per line) sampled on a simple shape.");
  std::string shapeName = "sphere", output;
  std::size_t count = 20000;
  std::uint32_t seed = 1;
  app.add_option("--shape", shapeName, "sphere, torus, nested, noisy or half")->capture_default_str();
  app.add_option("--points", count, "number of points")->capture_default_str()->check(CLI::Range(1, 100000000));
  app.add_option("--seed", seed, "random seed")->capture_default_str();
  app.add_option("OUTPUT", output, "output file (.xyzn)")->required();
  try
  {
    app.parse(argc, argv);
  }
  catch (CLI::ParseError const & e)
  {
    int const rc = app.exit(e);
    return rc == 0 ? 0 : 2;
  }
  qzrecon::Shape shape;
  if (!qzrecon::shapeFromName(shapeName, shape))
  {
    std::fprintf(stderr, "qzsample: unknown shape '%s'\n", shapeName.c_str());
    return 2;
  }
  try
  {
    qzrecon::writeText(output, qzrecon::makeShapeCloud(shape, count, seed));
  }
  catch (std::exception const & e)
  {
    std::fprintf(stderr, "qzsample: %s\n", e.what());
    return 1;
  }
  std::printf("qzsample: %zu points on a %s written to %s\n", count, shapeName.c_str(), output.c_str());
  return 0;
}
