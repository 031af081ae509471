#include "CloudIO.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qzrecon
{
namespace
{
std::string lower(std::string s)
{
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

std::string extensionOf(std::string const & path)
{
  auto const slash = path.find_last_of('/');
  auto const dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
    return "";
  return lower(path.substr(dot + 1));
}

[[noreturn]] void fail(std::string const & path, std::string const & where, std::string const & what)
{
  throw CloudReadError(path + ": " + where + ": " + what);
}

// ---------------------------------------------------------------- PLY

enum class Scalar
{
  Int8,
  UInt8,
  Int16,
  UInt16,
  Int32,
  UInt32,
  Float32,
  Float64,
  Invalid
};

Scalar scalarOf(std::string const & t)
{
  if (t == "char" || t == "int8")
    return Scalar::Int8;
  if (t == "uchar" || t == "uint8")
    return Scalar::UInt8;
  if (t == "short" || t == "int16")
    return Scalar::Int16;
  if (t == "ushort" || t == "uint16")
    return Scalar::UInt16;
  if (t == "int" || t == "int32")
    return Scalar::Int32;
  if (t == "uint" || t == "uint32")
    return Scalar::UInt32;
  if (t == "float" || t == "float32")
    return Scalar::Float32;
  if (t == "double" || t == "float64")
    return Scalar::Float64;
  return Scalar::Invalid;
}

std::size_t sizeOf(Scalar s)
{
  switch (s)
  {
  case Scalar::Int8:
  case Scalar::UInt8:
    return 1;
  case Scalar::Int16:
  case Scalar::UInt16:
    return 2;
  case Scalar::Int32:
  case Scalar::UInt32:
  case Scalar::Float32:
    return 4;
  case Scalar::Float64:
    return 8;
  default:
    return 0;
  }
}

struct Property
{
  std::string name;
  Scalar type = Scalar::Invalid;
  bool isList = false;
  Scalar countType = Scalar::Invalid;
};

struct Element
{
  std::string name;
  std::uint64_t count = 0;
  std::vector<Property> properties;
};

enum class Format
{
  Ascii,
  BinaryLE,
  BinaryBE
};

bool hostIsLittleEndian()
{
  std::uint16_t const one = 1;
  unsigned char b;
  std::memcpy(&b, &one, 1);
  return b == 1;
}

double decode(unsigned char const * p, Scalar s, bool swap)
{
  unsigned char buf[8] = {};
  // No scalar is wider than eight bytes; the bound says so to the compiler too.
  std::size_t const n = std::min<std::size_t>(sizeOf(s), sizeof buf);
  for (std::size_t i = 0; i < n; ++i)
    buf[i] = swap ? p[n - 1 - i] : p[i];
  switch (s)
  {
  case Scalar::Int8:
  {
    std::int8_t v;
    std::memcpy(&v, buf, 1);
    return v;
  }
  case Scalar::UInt8:
    return buf[0];
  case Scalar::Int16:
  {
    std::int16_t v;
    std::memcpy(&v, buf, 2);
    return v;
  }
  case Scalar::UInt16:
  {
    std::uint16_t v;
    std::memcpy(&v, buf, 2);
    return v;
  }
  case Scalar::Int32:
  {
    std::int32_t v;
    std::memcpy(&v, buf, 4);
    return v;
  }
  case Scalar::UInt32:
  {
    std::uint32_t v;
    std::memcpy(&v, buf, 4);
    return v;
  }
  case Scalar::Float32:
  {
    float v;
    std::memcpy(&v, buf, 4);
    return v;
  }
  case Scalar::Float64:
  {
    double v;
    std::memcpy(&v, buf, 8);
    return v;
  }
  default:
    return 0;
  }
}

// Indices of x y z nx ny nz among the vertex properties.
struct VertexLayout
{
  int slot[6] = {-1, -1, -1, -1, -1, -1};
};

VertexLayout layoutOf(std::string const & path, Element const & vertex)
{
  static char const * const names[6] = {"x", "y", "z", "nx", "ny", "nz"};
  VertexLayout l;
  for (std::size_t p = 0; p < vertex.properties.size(); ++p)
    for (int k = 0; k < 6; ++k)
      if (vertex.properties[p].name == names[k])
      {
        if (vertex.properties[p].isList)
          fail(path, "header", std::string("vertex property ") + names[k] + " is a list");
        if (vertex.properties[p].type != Scalar::Float32 && vertex.properties[p].type != Scalar::Float64)
          fail(path, "header", std::string("vertex property ") + names[k] + " is not float or double");
        l.slot[k] = static_cast<int>(p);
      }
  for (int k = 0; k < 3; ++k)
    if (l.slot[k] < 0)
      fail(path, "header", std::string("vertex property ") + names[k] + " is missing");
  // Normals are all there or not at all.
  if (l.slot[3] >= 0 || l.slot[4] >= 0 || l.slot[5] >= 0)
    for (int k = 3; k < 6; ++k)
      if (l.slot[k] < 0)
        fail(path, "header", std::string("vertex property ") + names[k] + " is missing");
  return l;
}

// `where` names the vertex for an error, built only when there is one.
template <class Where>
void storeVertex(OrientedCloud & cloud, double const * values, VertexLayout const & l,
                 std::string const & path, Where && where)
{
  int const n = l.slot[3] >= 0 ? 6 : 3;
  float v[6];
  for (int k = 0; k < n; ++k)
  {
    double const d = values[l.slot[k]];
    if (!std::isfinite(d) || std::fabs(d) > std::numeric_limits<float>::max())
      fail(path, where(), "non-finite or out-of-range coordinate");
    v[k] = static_cast<float>(d);
  }
  cloud.points.insert(cloud.points.end(), v, v + 3);
  if (n == 6)
    cloud.normals.insert(cloud.normals.end(), v + 3, v + 6);
}

// Binary little-endian PLY of vertices (with normals when given) and
// triangles (none: no face element).
void writeBinaryPly(std::string const & path, std::vector<float> const & vertices,
                    std::vector<float> const * normals, std::vector<std::int32_t> const * triangles)
{
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out)
    throw std::runtime_error(path + ": cannot write the file");
  std::size_t const count = vertices.size() / 3;
  out << "ply\nformat binary_little_endian 1.0\ncomment made by qzrecon\n";
  out << "element vertex " << count << "\n";
  out << "property float x\nproperty float y\nproperty float z\n";
  if (normals)
    out << "property float nx\nproperty float ny\nproperty float nz\n";
  if (triangles)
  {
    out << "element face " << triangles->size() / 3 << "\n";
    out << "property list uchar int vertex_indices\n";
  }
  out << "end_header\n";
  bool const swap = !hostIsLittleEndian();
  // Records are gathered in a buffer and written a megabyte at a time: a
  // stream write per value cost more than the values.
  std::vector<char> buffer;
  buffer.reserve(1 << 20);
  auto flush = [&]
  {
    out.write(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    buffer.clear();
  };
  auto put = [&](void const * p, std::size_t n)
  {
    unsigned char b[4];
    std::memcpy(b, p, n);
    if (swap)
      std::reverse(b, b + n);
    buffer.insert(buffer.end(), b, b + n);
    if (buffer.size() >= (1 << 20) - 16)
      flush();
  };
  for (std::size_t v = 0; v < count; ++v)
  {
    for (int k = 0; k < 3; ++k)
      put(&vertices[3 * v + k], 4);
    if (normals)
      for (int k = 0; k < 3; ++k)
        put(&(*normals)[3 * v + k], 4);
  }
  if (triangles)
  {
    unsigned char const three = 3;
    for (std::size_t t = 0; t < triangles->size() / 3; ++t)
    {
      put(&three, 1);
      for (int k = 0; k < 3; ++k)
        put(&(*triangles)[3 * t + k], 4);
    }
  }
  flush();
  out.flush();
  if (!out)
    throw std::runtime_error(path + ": write failed (disk full?)");
}
} // namespace

OrientedCloud readPly(std::string const & path)
{
  std::ifstream in(path, std::ios::binary);
  if (!in)
    fail(path, "open", "cannot read the file");

  std::string line;
  long lineNo = 0;
  auto nextHeaderLine = [&]()
  {
    if (!std::getline(in, line))
      fail(path, "line " + std::to_string(lineNo + 1), "unexpected end of the header");
    ++lineNo;
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
  };
  nextHeaderLine();
  if (line != "ply")
    fail(path, "line 1", "not a PLY file (no 'ply' mark)");

  Format format = Format::Ascii;
  bool haveFormat = false;
  std::vector<Element> elements;
  for (;;)
  {
    nextHeaderLine();
    std::istringstream words(line);
    std::string key;
    words >> key;
    std::string const where = "line " + std::to_string(lineNo);
    if (key.empty() || key == "comment" || key == "obj_info")
      continue;
    if (key == "end_header")
      break;
    if (key == "format")
    {
      std::string f, version;
      words >> f >> version;
      if (f == "ascii")
        format = Format::Ascii;
      else if (f == "binary_little_endian")
        format = Format::BinaryLE;
      else if (f == "binary_big_endian")
        format = Format::BinaryBE;
      else
        fail(path, where, "unknown format '" + f + "'");
      haveFormat = true;
    }
    else if (key == "element")
    {
      Element e;
      long long count = -1;
      words >> e.name >> count;
      if (e.name.empty() || !words || count < 0)
        fail(path, where, "bad element line");
      e.count = static_cast<std::uint64_t>(count);
      elements.push_back(e);
    }
    else if (key == "property")
    {
      if (elements.empty())
        fail(path, where, "property before any element");
      Property p;
      std::string type;
      words >> type;
      if (type == "list")
      {
        std::string countType, itemType;
        words >> countType >> itemType >> p.name;
        p.isList = true;
        p.countType = scalarOf(countType);
        p.type = scalarOf(itemType);
        if (p.countType == Scalar::Invalid || p.countType == Scalar::Float32 ||
            p.countType == Scalar::Float64)
          fail(path, where, "bad list count type '" + countType + "'");
      }
      else
      {
        words >> p.name;
        p.type = scalarOf(type);
      }
      if (p.type == Scalar::Invalid || p.name.empty())
        fail(path, where, "bad property line");
      elements.back().properties.push_back(p);
    }
    else
      fail(path, where, "unknown header keyword '" + key + "'");
  }
  if (!haveFormat)
    fail(path, "header", "no format line");

  auto vertexIt =
      std::find_if(elements.begin(), elements.end(), [](Element const & e) { return e.name == "vertex"; });
  if (vertexIt == elements.end())
    fail(path, "header", "no vertex element");
  VertexLayout const layout = layoutOf(path, *vertexIt);

  OrientedCloud cloud;
  std::vector<double> values;
  if (format == Format::Ascii)
  {
    for (Element const & e : elements)
    {
      bool const isVertex = &e == &*vertexIt;
      for (std::uint64_t r = 0; r < e.count; ++r)
      {
        if (!std::getline(in, line))
          fail(path, "line " + std::to_string(lineNo + 1),
               "unexpected end of file: " + e.name + " " + std::to_string(r) + " of " +
                   std::to_string(e.count));
        ++lineNo;
        if (!isVertex)
          continue;
        std::istringstream words(line);
        values.assign(e.properties.size(), 0.0);
        std::string const where = "line " + std::to_string(lineNo);
        for (std::size_t p = 0; p < e.properties.size(); ++p)
        {
          Property const & prop = e.properties[p];
          if (prop.isList)
          {
            long long n = -1;
            words >> n;
            if (!words || n < 0)
              fail(path, where, "bad list count");
            for (long long i = 0; i < n; ++i)
            {
              std::string skip;
              if (!(words >> skip))
                fail(path, where, "short list");
            }
            continue;
          }
          std::string token;
          if (!(words >> token))
            fail(path, where, "too few values for a vertex");
          char * end = nullptr;
          values[p] = std::strtod(token.c_str(), &end);
          if (end == token.c_str() || *end != '\0')
            fail(path, where, "not a number: '" + token + "'");
        }
        storeVertex(cloud, values.data(), layout, path, [&] { return where; });
      }
    }
    return cloud;
  }

  bool const swap = (format == Format::BinaryLE) != hostIsLittleEndian();
  std::streamoff offset = in.tellg();
  unsigned char buf[8];
  auto readBytes = [&](unsigned char * dst, std::size_t n, char const * what)
  {
    if (!in.read(reinterpret_cast<char *>(dst), static_cast<std::streamsize>(n)))
      fail(path, "byte " + std::to_string(offset), std::string("unexpected end of file in ") + what);
    offset += static_cast<std::streamoff>(n);
  };
  for (Element const & e : elements)
  {
    bool const isVertex = &e == &*vertexIt;
    // Rows without properties take no bytes: however many the header
    // declares, there is nothing to read, and counting them could take
    // forever.
    if (e.properties.empty())
      continue;
    if (isVertex)
    {
      // Reserve only what the file can hold, so that a lying count cannot
      // make us allocate before the data are proven to be there.
      in.seekg(0, std::ios::end);
      std::streamoff const fileSize = in.tellg();
      in.seekg(offset);
      std::size_t rowSize = 0;
      for (Property const & p : e.properties)
        rowSize += p.isList ? 0 : sizeOf(p.type);
      if (rowSize > 0 && fileSize > offset)
        cloud.points.reserve(
            3 * std::min<std::uint64_t>(e.count, static_cast<std::uint64_t>(fileSize - offset) / rowSize));
      cloud.normals.reserve(cloud.points.capacity());
    }
    for (std::uint64_t r = 0; r < e.count; ++r)
    {
      std::streamoff const rowStart = offset;
      if (isVertex)
        values.assign(e.properties.size(), 0.0);
      for (std::size_t p = 0; p < e.properties.size(); ++p)
      {
        Property const & prop = e.properties[p];
        if (prop.isList)
        {
          readBytes(buf, sizeOf(prop.countType), e.name.c_str());
          double const n = decode(buf, prop.countType, swap);
          if (n < 0)
            fail(path, "byte " + std::to_string(offset), "negative list count");
          std::streamoff const skip =
              static_cast<std::streamoff>(n) * static_cast<std::streamoff>(sizeOf(prop.type));
          in.seekg(skip, std::ios::cur);
          offset += skip;
          continue;
        }
        readBytes(buf, sizeOf(prop.type), e.name.c_str());
        if (isVertex)
          values[p] = decode(buf, prop.type, swap);
      }
      if (isVertex)
        storeVertex(cloud, values.data(), layout, path,
                    [&] { return "vertex " + std::to_string(r) + " at byte " + std::to_string(rowStart); });
    }
    if (isVertex)
      break; // what follows the vertices is not needed
  }
  return cloud;
}

OrientedCloud readText(std::string const & path)
{
  std::ifstream in(path, std::ios::binary);
  if (!in)
    fail(path, "open", "cannot read the file");
  // The whole file at once, cut into lines and words in place: a string
  // stream and a string per word cost several times the numbers' parsing.
  std::string text;
  {
    std::vector<char> chunk(1 << 16);
    while (in.read(chunk.data(), static_cast<std::streamsize>(chunk.size())) || in.gcount() > 0)
      text.append(chunk.data(), static_cast<std::size_t>(in.gcount()));
  }
  OrientedCloud cloud;
  long lineNo = 0, firstLine = 0;
  bool withNormals = true;
  auto separator = [](char c) {
    return c == ' ' || c == ',' || c == ';' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
  };
  for (std::size_t pos = 0; pos < text.size();)
  {
    std::size_t eol = text.find('\n', pos);
    if (eol == std::string::npos)
      eol = text.size();
    char * line = &text[pos];
    std::size_t length = eol - pos;
    pos = eol + 1;
    ++lineNo;
    if (char const * hash = static_cast<char const *>(std::memchr(line, '#', length)))
      length = static_cast<std::size_t>(hash - line);
    // The first six words, each ended by a zero in place, and how many.
    char * words[6];
    std::size_t sizes[6];
    std::size_t count = 0;
    for (std::size_t i = 0; i < length;)
    {
      if (separator(line[i]))
      {
        ++i;
        continue;
      }
      std::size_t const begin = i;
      while (i < length && !separator(line[i]))
        ++i;
      if (count < 6)
      {
        words[count] = line + begin;
        sizes[count] = i - begin;
      }
      ++count;
      line[i++] = '\0'; // a separator, the cut comment's mark, or the end
    }
    if (count == 0)
      continue;
    auto where = [&] { return "line " + std::to_string(lineNo); };
    if (firstLine == 0)
    {
      if (count < 3)
        fail(path, where(), "expected x y z, or x y z nx ny nz");
      firstLine = lineNo;
      withNormals = count >= 6;
    }
    if (withNormals && count < 6)
      fail(path, where(),
           count == 3 ? "no normal (expected x y z nx ny nz)" : "expected six values: x y z nx ny nz");
    if (!withNormals && (count < 3 || count >= 6))
      fail(path, where(),
           "expected three values (x y z) as on line " + std::to_string(firstLine) + ", found " +
               std::to_string(count));
    int const n = withNormals ? 6 : 3;
    double values[6];
    for (int k = 0; k < n; ++k)
    {
      char const * const last = words[k] + sizes[k];
      // Plain decimals the fast way; anything else (a sign, hex, an
      // overflow) as strtod reads it.
      auto const r = std::from_chars(words[k], last, values[k]);
      if (r.ec == std::errc() && r.ptr == last)
        continue;
      char * end = nullptr;
      values[k] = std::strtod(words[k], &end);
      if (end == words[k] || end != last)
        fail(path, where(), "not a number: '" + std::string(words[k], sizes[k]) + "'");
    }
    VertexLayout l;
    for (int k = 0; k < n; ++k)
      l.slot[k] = k;
    storeVertex(cloud, values, l, path, where);
  }
  if (in.bad())
    fail(path, "line " + std::to_string(lineNo + 1), "read error");
  return cloud;
}

OrientedCloud readCloud(std::string const & path)
{
  std::string const ext = extensionOf(path);
  if (ext == "ply")
    return readPly(path);
  if (ext == "xyzn" || ext == "xyz" || ext == "pts" || ext == "txt")
    return readText(path);
  // Unknown extension: sniff the PLY mark.
  std::ifstream in(path, std::ios::binary);
  if (!in)
    fail(path, "open", "cannot read the file");
  char mark[4] = {0, 0, 0, 0};
  in.read(mark, 3);
  if (std::string(mark, 3) == "ply")
    return readPly(path);
  return readText(path);
}

void writePly(std::string const & path, MeshData const & mesh, bool withNormals)
{
  if (withNormals && mesh.normals.size() != mesh.vertices.size())
    throw std::runtime_error(path + ": normals missing for some vertices");
  writeBinaryPly(path, mesh.vertices, withNormals ? &mesh.normals : nullptr, &mesh.triangles);
}

void writePly(std::string const & path, OrientedCloud const & cloud)
{
  writeBinaryPly(path, cloud.points, cloud.hasNormals() ? &cloud.normals : nullptr, nullptr);
}

void checkWritable(std::string const & path)
{
  struct stat st;
  bool const existed = ::stat(path.c_str(), &st) == 0;
  if (existed && S_ISDIR(st.st_mode))
    throw std::runtime_error(path + ": cannot write the file (it is a folder)");
  int const fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0666);
  if (fd < 0)
    throw std::runtime_error(path + ": cannot write the file (" + std::strerror(errno) + ")");
  ::close(fd);
  if (!existed)
    ::unlink(path.c_str());
}
} // namespace qzrecon
