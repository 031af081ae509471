// Writes the seed corpora of the fuzz targets, one folder each under the
// folder given, with our own writers: component documents, sparse vectors,
// PLY and text clouds (and operation programs for the external vector).

#include <cstdio>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "CloudIO.h"
#include "ComponentDocument.h"
#include "QZmath/LinSys/SparseVector.h"
#include "QZmath/Persistence/BinaryStream.h"
#include "ShapeCloud.h"

namespace
{
std::string folder(std::string const & root, char const * name)
{
  std::string const dir = root + "/" + name;
  ::mkdir(dir.c_str(), 0755);
  return dir;
}

void saveDocument(std::string const & path, int children, bool trailer)
{
  std::FILE * f = std::fopen(path.c_str(), "w+b");
  if (!f)
    throw std::runtime_error(path + ": cannot write");
  {
    CFileBinaryStream stream(f);
    auto * doc = new qzfuzz::DocFilter(stream, nullptr);
    for (int i = 0; i < children; ++i)
    {
      VsF::IComponentFilter * child = nullptr;
      if (i % 3 == 0)
      {
        auto * p = new qzfuzz::PointsFilter(stream);
        for (int k = 0; k < 3 * (i + 1); ++k)
          p->coords.push_back(0.25f * static_cast<float>(k) - 1.0f);
        child = p;
      }
      else
      {
        auto * t = new qzfuzz::TextFilter(stream);
        t->text = i % 3 == 1 ? "a text component" : "an unknown one";
        child = t;
      }
      doc->children.emplace_back(new VsF::CInnerHeaderWrapper(child, nullptr, L""));
    }
    VsF::CInnerHeaderWrapper(doc, nullptr, L"").Save();
    if (trailer)
      stream.writeData(5, "tail!");
  }
  std::fclose(f);
}

template <class T> void saveSparse(std::string const & path, std::vector<T> const & dense)
{
  std::FILE * f = std::fopen(path.c_str(), "wb");
  if (!f)
    throw std::runtime_error(path + ": cannot write");
  REmath::CSparseVectorTmpl<T>(static_cast<int>(dense.size()), dense.data()).SaveToFile(f);
  std::fclose(f);
}

/// The same cloud as ascii PLY or big-endian binary PLY, beside the writer's
/// little-endian form, with a face element behind the vertices as meshes have.
void writePlyVariant(std::string const & path, qzrecon::OrientedCloud const & c, bool ascii)
{
  std::ofstream out(path, std::ios::binary);
  out << "ply\nformat " << (ascii ? "ascii" : "binary_big_endian") << " 1.0\n"
      << "element vertex " << c.size() << "\nproperty double x\nproperty double y\nproperty double z\n";
  if (c.hasNormals())
    out << "property float nx\nproperty float ny\nproperty float nz\n";
  out << "element face 1\nproperty list uchar int vertex_indices\nend_header\n";
  auto put = [&](void const * p, std::size_t n) {
    unsigned char b[8];
    for (std::size_t i = 0; i < n; ++i)
      b[i] = static_cast<unsigned char const *>(p)[n - 1 - i];
    out.write(reinterpret_cast<char const *>(b), static_cast<std::streamsize>(n));
  };
  for (std::size_t i = 0; i < c.size(); ++i)
  {
    for (int k = 0; k < 3; ++k)
    {
      double const v = c.points[3 * i + k];
      if (ascii)
        out << v << (k < 2 || c.hasNormals() ? " " : "\n");
      else
        put(&v, 8);
    }
    for (int k = 0; c.hasNormals() && k < 3; ++k)
    {
      float const v = c.normals[3 * i + k];
      if (ascii)
        out << v << (k < 2 ? " " : "\n");
      else
        put(&v, 4);
    }
  }
  if (ascii)
    out << "3 0 1 2\n";
  else
  {
    out.put(3);
    for (std::int32_t k = 0; k < 3; ++k)
      put(&k, 4);
  }
}

void writeBytes(std::string const & path, std::vector<unsigned char> const & bytes)
{
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<char const *>(bytes.data()),
                                              static_cast<std::streamsize>(bytes.size()));
}
} // namespace

int main(int argc, char ** argv)
{
  if (argc != 2)
  {
    std::fprintf(stderr, "usage: %s OUTPUT_FOLDER\n", argv[0]);
    return 2;
  }
  std::string const root = argv[1];
  ::mkdir(root.c_str(), 0755);
  try
  {
    std::string dir = folder(root, "component_filters");
    saveDocument(dir + "/empty", 0, false);
    saveDocument(dir + "/three", 3, false);
    saveDocument(dir + "/seven_tail", 7, true);

    dir = folder(root, "sparse_vector");
    saveSparse<float>(dir + "/float_empty", {});
    saveSparse<float>(dir + "/float_one", {0, 0, 2.5f});
    saveSparse<float>(dir + "/float_some", {1, 0, -3, 0, 0, 7, 0.5f});
    saveSparse<double>(dir + "/double_some", {0, 4, 0, 0, -1e-300, 6, 0, 1e300});

    // Programs of operations: element size, then reserve, resize, lock,
    // add a hold, change and release, clear.
    dir = folder(root, "extern_vector");
    std::mt19937 random(7);
    for (int p = 0; p < 6; ++p)
    {
      std::vector<unsigned char> program{static_cast<unsigned char>(p * 7), 2, 40, 0, 0x5a};
      for (int k = 0; k < 60; ++k)
        program.push_back(static_cast<unsigned char>(random()));
      writeBytes(dir + "/program" + std::to_string(p), program);
    }

    dir = folder(root, "ply_reader");
    qzrecon::OrientedCloud const sphere = qzrecon::makeShapeCloud(qzrecon::Shape::Sphere, 12);
    qzrecon::OrientedCloud bare = qzrecon::makeShapeCloud(qzrecon::Shape::Torus, 10);
    bare.normals.clear();
    qzrecon::writePly(dir + "/oriented.ply", sphere);
    qzrecon::writePly(dir + "/bare.ply", bare);
    qzrecon::MeshData mesh;
    mesh.vertices = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    mesh.normals = {0, 0, 1, 0, 0, 1, 0, 0, 1};
    mesh.triangles = {0, 1, 2};
    qzrecon::writePly(dir + "/mesh.ply", mesh, true);
    writePlyVariant(dir + "/ascii.ply", sphere, true);
    writePlyVariant(dir + "/big_endian.ply", bare, false);

    dir = folder(root, "text_cloud_reader");
    qzrecon::writeText(dir + "/oriented.xyzn", qzrecon::makeShapeCloud(qzrecon::Shape::NoisySphere, 12));
    qzrecon::writeText(dir + "/bare.xyz", bare);
  }
  catch (std::exception const & e)
  {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
  return 0;
}
