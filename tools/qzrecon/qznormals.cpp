// qznormals: estimates and orients the normals of a point cloud and writes the
// oriented cloud.
//
//   qznormals [options] INPUT OUTPUT.ply
//
// Exit status: 0 on success, 1 when writing fails, 2 for bad usage, an
// unreadable input, a cloud that cannot have normals or an unwritable output.

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "CloudIO.h"
#include "CloudNormals.h"
#include "QZsys/ConsoleProgressBar.h"

int main(int argc, char ** argv)
{
  CLI::App app("Estimates and orients the normals of a point cloud; writes it with them.\n"
               "INPUT: PLY or text with x y z (or x y z nx ny nz, whose normals are replaced) per line.\n"
               "OUTPUT: binary little-endian PLY with x y z nx ny nz.");
  std::string input, output, jsonPath;
  qzrecon::NormalOptions options;
  bool quiet = false;
  app.set_version_flag("--version", "qznormals 0.1.0");
  app.add_option("INPUT", input, "point cloud")->required();
  app.add_option("OUTPUT", output, "oriented cloud (.ply)")->required();
  qzrecon::addNormalOptions(app, options);
  app.add_flag("--quiet", quiet, "no progress bar");
  app.add_option("--json", jsonPath, "summary as JSON to a file, '-' for standard output");
  try
  {
    app.parse(argc, argv);
  }
  catch (CLI::ParseError const & e)
  {
    int const rc = app.exit(e);
    return rc == 0 ? 0 : 2;
  }

  try
  {
    qzrecon::checkWritable(output);
    if (!jsonPath.empty() && jsonPath != "-")
      qzrecon::checkWritable(jsonPath);
  }
  catch (std::exception const & e)
  {
    std::fprintf(stderr, "qznormals: %s\n", e.what());
    return 2;
  }

  qzrecon::OrientedCloud cloud;
  try
  {
    cloud = qzrecon::readCloud(input);
  }
  catch (std::exception const & e)
  {
    std::fprintf(stderr, "qznormals: %s\n", e.what());
    return 2;
  }

  CProgressCounter progress;
  std::unique_ptr<CConsoleProgressBar> bar;
  if (!quiet && isatty(fileno(stderr)))
  {
    bar.reset(new CConsoleProgressBar(stderr, 40, 100));
    progress.AddObserver(bar.get());
  }
  qzrecon::NormalsSummary summary;
  try
  {
    summary = qzrecon::estimateNormals(cloud, options, &progress);
  }
  catch (std::exception const & e)
  {
    if (bar)
      bar->finish();
    std::fprintf(stderr, "qznormals: %s: %s\n", input.c_str(), e.what());
    return 2;
  }
  if (bar)
    bar->finish();

  try
  {
    qzrecon::writePly(output, cloud);
  }
  catch (std::exception const & e)
  {
    std::fprintf(stderr, "qznormals: %s\n", e.what());
    return 1;
  }
  std::printf("qznormals: %zu points, k = %d: %d degenerate neighbourhoods, %d components; %.2f s; written to %s\n",
              cloud.size(), summary.neighbours, summary.degenerate, summary.components, summary.seconds,
              output.c_str());
  if (!jsonPath.empty())
  {
    nlohmann::ordered_json j;
    j["input"] = input;
    j["output"] = output;
    j["points"] = cloud.size();
    j["normals"] = qzrecon::toJson(summary);
    std::string const text = j.dump(2) + "\n";
    if (jsonPath == "-")
      std::fputs(text.c_str(), stdout);
    else
    {
      std::ofstream out(jsonPath);
      out << text;
      if (!out)
      {
        std::fprintf(stderr, "qznormals: %s: cannot write the summary\n", jsonPath.c_str());
        return 1;
      }
    }
  }
  return 0;
}
