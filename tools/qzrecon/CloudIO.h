#pragma once
// Reading oriented point clouds and writing triangle meshes for the qzrecon tool.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace qzrecon
{
/// Points and their normals, three floats each, in file order. A cloud read
/// from a file without normals has none: `normals` stays empty.
struct OrientedCloud
{
  std::vector<float> points;
  std::vector<float> normals;
  std::size_t size() const { return points.size() / 3; }
  bool hasNormals() const { return normals.size() == points.size(); }
};

/// An input that cannot be used; the message names the file and the line or
/// byte offset of the problem.
class CloudReadError : public std::runtime_error
{
public:
  using std::runtime_error::runtime_error;
};

/// Reads PLY (ascii, binary little- or big-endian; vertex properties x y z and
/// optionally nx ny nz, as float or double, others skipped) or text with
/// "x y z nx ny nz" or "x y z" per line (.xyzn, .xyz, .pts, .txt; '#' starts a
/// comment; the first line decides: six values or more carry normals, three
/// to five do not, the rest ignored; every line must then agree). Non-finite
/// values are refused. Throws CloudReadError.
OrientedCloud readCloud(std::string const & path);
OrientedCloud readPly(std::string const & path);
OrientedCloud readText(std::string const & path);

/// A mesh on its way to a file.
struct MeshData
{
  std::vector<float> vertices;
  std::vector<float> normals; // empty, or three per vertex
  std::vector<std::int32_t> triangles;
  std::size_t vertexCount() const { return vertices.size() / 3; }
  std::size_t triangleCount() const { return triangles.size() / 3; }
};

/// Writes binary little-endian PLY: vertex float x y z (and nx ny nz when
/// `withNormals`), face list uchar int vertex_indices. Throws std::runtime_error
/// when the file cannot be written.
void writePly(std::string const & path, MeshData const & mesh, bool withNormals);
/// Writes a cloud as binary little-endian PLY: vertex float x y z (and nx ny
/// nz when it has normals), no faces. Throws std::runtime_error.
void writePly(std::string const & path, OrientedCloud const & cloud);

/// Makes sure that `path` can be written before any work is done: opens it
/// for writing without truncating it, and removes it again when it did not
/// exist. Throws std::runtime_error naming the file and the reason.
void checkWritable(std::string const & path);
} // namespace qzrecon
