#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "CloudIO.h"
#include "tests/Common/Checks.h"

using namespace qzrecon;
using testing::HasSubstr;

namespace
{
// Per process, so that two runs of the suite on one machine never share a file.
std::string tempPath(std::string const & name)
{
  return testing::TempDir() + "qzrecon_io_" + std::to_string(::getpid()) + "_" + name;
}

void writeFile(std::string const & path, std::string const & bytes)
{
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string readFile(std::string const & path)
{
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

template <class T> void appendValue(std::string & s, T v, bool bigEndian)
{
  char b[sizeof(T)];
  std::memcpy(b, &v, sizeof(T));
  if (bigEndian)
    std::reverse(b, b + sizeof(T));
  s.append(b, sizeof(T));
}

// A binary PLY with a leading element and extra properties around the ones we need.
std::string binaryPly(bool bigEndian, bool asDouble, std::vector<std::array<double, 6>> const & rows,
                      long declaredCount = -1)
{
  std::string h = "ply\nformat ";
  h += bigEndian ? "binary_big_endian" : "binary_little_endian";
  h += " 1.0\ncomment test\nelement camera 1\nproperty list uchar int ids\nproperty float f\n";
  h += "element vertex " +
       std::to_string(declaredCount < 0 ? static_cast<long>(rows.size()) : declaredCount) + "\n";
  std::string const t = asDouble ? "double" : "float";
  h += "property uchar red\nproperty " + t + " x\nproperty " + t + " y\nproperty " + t + " z\n";
  h += "property list uchar int extra\nproperty " + t + " nx\nproperty " + t + " ny\nproperty " + t + " nz\n";
  h += "element face 0\nproperty list uchar int vertex_indices\nend_header\n";
  std::string body;
  appendValue<unsigned char>(body, 2, bigEndian);
  appendValue<int>(body, 7, bigEndian);
  appendValue<int>(body, 8, bigEndian);
  appendValue<float>(body, 1.5f, bigEndian);
  for (auto const & r : rows)
  {
    appendValue<unsigned char>(body, 200, bigEndian);
    for (int k = 0; k < 3; ++k)
      asDouble ? appendValue<double>(body, r[k], bigEndian)
               : appendValue<float>(body, static_cast<float>(r[k]), bigEndian);
    appendValue<unsigned char>(body, 1, bigEndian);
    appendValue<int>(body, 99, bigEndian);
    for (int k = 3; k < 6; ++k)
      asDouble ? appendValue<double>(body, r[k], bigEndian)
               : appendValue<float>(body, static_cast<float>(r[k]), bigEndian);
  }
  return h + body;
}

std::vector<std::array<double, 6>> const kRows = {
    {0.5, -1.25, 2.0, 0, 0, 1}, {1e3, 2e-3, -7.5, 0.6, 0.8, 0}, {-0.125, 0.25, 3.5, 1, 0, 0}};

/// The rows of kRows, with their normals or (`normals` false) without any.
void expectRows(OrientedCloud const & c, bool normals = true)
{
  ASSERT_EQ(c.size(), kRows.size());
  EXPECT_EQ(c.hasNormals(), normals);
  EXPECT_EQ(c.normals.size(), normals ? c.points.size() : 0u);
  for (std::size_t i = 0; i < kRows.size(); ++i)
    for (int k = 0; k < 3; ++k)
    {
      EXPECT_EQ(c.points[3 * i + k], static_cast<float>(kRows[i][k]));
      EXPECT_TRUE(!normals || c.normals[3 * i + k] == static_cast<float>(kRows[i][k + 3]));
    }
}

std::string errorOf(std::string const & path)
{
  return QZTest::whatOf<CloudReadError>([&] { readCloud(path); });
}
} // namespace

TEST(CloudIO, BinaryPlyBothEndiansFloatAndDouble)
{
  for (bool big : {false, true})
    for (bool dbl : {false, true})
    {
      std::string const p = tempPath("bin.ply");
      writeFile(p, binaryPly(big, dbl, kRows));
      expectRows(readCloud(p));
    }
}

TEST(CloudIO, AsciiPlyAndText)
{
  std::string const ply =
      "ply\r\nformat ascii 1.0\r\nelement vertex 3\r\nproperty float x\r\nproperty float y\r\n"
      "property float z\r\nproperty float nx\r\nproperty float ny\r\nproperty float nz\r\n"
      "property uchar alpha\r\nend_header\r\n"
      "0.5 -1.25 2 0 0 1 3\n1000 0.002 -7.5 0.6 0.8 0 4\n-0.125 0.25 3.5 1 0 0 5\n";
  writeFile(tempPath("a.ply"), ply);
  expectRows(readCloud(tempPath("a.ply")));

  std::string const text =
      "# a comment\n0.5 -1.25 2 0 0 1\n\n1000,0.002,-7.5,0.6,0.8,0\n-0.125\t0.25 3.5 1 0 0  # end\n";
  for (char const * ext : {"xyzn", "xyz", "pts", "txt"})
  {
    writeFile(tempPath(std::string("t.") + ext), text);
    expectRows(readCloud(tempPath(std::string("t.") + ext)));
  }
}

TEST(CloudIO, MalformedInputsNameTheFileAndPlace)
{
  std::string const plyHead = "ply\nformat ascii 1.0\nelement vertex ";
  std::string const xyzProps = "property float x\nproperty float y\nproperty float z\n";
  std::string const normalProps = "property float nx\nproperty float ny\nproperty float nz\nend_header\n";
  struct Case
  {
    char const * file;
    std::string bytes;
    char const * message;
  } const cases[] = {
      {"bad.xyzn", "0 0 0 0 0 1\n1 2 3\n", "bad.xyzn: line 2: no normal"},
      {"bad.xyzn", "0 0 0 0 0 1\n1 2 nan 0 0 1\n", "line 2: non-finite"},
      {"bad.xyzn", "0 0 0 0 0 1\n1 2 inf 0 0 1\n", "line 2"},
      {"bad.xyzn", "0 0 0 0 0 x1\n", "line 1: not a number"},
      {"bad.xyzn", "1 1 1e39 0 0 1\n", "line 1"}, // beyond float
      {"bad.ply", plyHead + "2\n" + xyzProps + "property float nx\nend_header\n1 2 3 0\n",
       "header: vertex property ny is missing"},
      {"bad.ply", plyHead + "3\n" + xyzProps + normalProps + "1 2 3 0 0 1\n",
       "line 12: unexpected end of file"},
      {"bad.ply", plyHead + "1\n" + xyzProps + normalProps + "1 2 3 0 nan 1\n", "line 11: non-finite"},
      {"bad.ply", "plx\n", "not a PLY"},
      {"bad.ply", plyHead + "1\n", "unexpected end of the header"},
      {"bad.ply", plyHead + "-4\nend_header\n", "bad element"},
      {"bad.ply", "ply\nformat binary_middle_endian 1.0\n", "unknown format"},
      {"bad.ply",
       plyHead + "1\nproperty int x\nproperty float y\nproperty float z\n" + normalProps + "1 2 3 0 0 1\n",
       "not float or double"},
  };
  for (Case const & c : cases)
  {
    writeFile(tempPath(c.file), c.bytes);
    EXPECT_THAT(errorOf(tempPath(c.file)), HasSubstr(c.message)) << c.bytes;
  }
  EXPECT_THAT(errorOf(tempPath("missing.ply")), HasSubstr("cannot read"));
}

TEST(CloudIO, TruncatedBinaryFailsAtEveryCut)
{
  std::string const full = binaryPly(false, false, kRows);
  std::string const p = tempPath("cut.ply");
  std::size_t const headerEnd = full.find("end_header\n") + 11;
  for (std::size_t cut = 0; cut < full.size(); ++cut)
  {
    writeFile(p, full.substr(0, cut));
    EXPECT_THAT(errorOf(p), HasSubstr(cut > headerEnd ? "byte " : "")) << "cut at " << cut;
    EXPECT_NE(errorOf(p), "<nothing thrown>") << "cut at " << cut;
  }
}

TEST(CloudIO, HugeDeclaredCountFailsCleanly)
{
  std::string const p = tempPath("huge.ply");
  writeFile(p, binaryPly(false, true, kRows, 4000000000L));
  EXPECT_THAT(errorOf(p), HasSubstr("unexpected end of file in vertex"));

  // An element without properties takes no bytes, whatever its count: the
  // vertices behind it are read at once (this used to count to 2^63).
  std::string ply = binaryPly(false, false, kRows);
  ply.insert(ply.find("element vertex"), "element nothing 9223372036854775807\n");
  writeFile(p, ply);
  expectRows(readCloud(p));
}

TEST(CloudIO, WrittenPlyReadsBackAsMesh)
{
  MeshData m;
  m.vertices = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
  m.normals = {0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1};
  m.triangles = {0, 1, 2, 0, 2, 3};
  std::string const p = tempPath("mesh.ply");
  writePly(p, m, true);
  std::string const bytes = readFile(p);
  std::string const header =
      "ply\nformat binary_little_endian 1.0\ncomment made by qzrecon\nelement vertex 4\n"
      "property float x\nproperty float y\nproperty float z\n"
      "property float nx\nproperty float ny\nproperty float nz\n"
      "element face 2\nproperty list uchar int vertex_indices\nend_header\n";
  ASSERT_EQ(bytes.substr(0, header.size()), header);
  ASSERT_EQ(bytes.size(), header.size() + 4 * 6 * 4 + 2 * (1 + 12));
  // The vertices read back through our own reader.
  OrientedCloud const c = readPly(p);
  ASSERT_EQ(c.size(), 4u);
  EXPECT_EQ(c.points[3], 1.f);
  EXPECT_EQ(c.normals[11], 1.f);
  std::size_t const faces = header.size() + 4 * 24;
  EXPECT_EQ(static_cast<unsigned char>(bytes[faces]), 3);
  int idx;
  std::memcpy(&idx, bytes.data() + faces + 1 + 4 * 5 + 1 - 4 + 4, 4); // second face, third index
  EXPECT_EQ(idx, 3);

  writePly(p, m, false);
  EXPECT_EQ(readFile(p).find("property float nx"), std::string::npos);
  EXPECT_THROW(writePly("/nonexistent-dir/mesh.ply", m, false), std::runtime_error);
}

TEST(CloudIO, CloudsWithoutNormals)
{
  // Text: the first line decides; three to five values are a point alone.
  std::string const p = tempPath("plain.xyz");
  writeFile(p, "# scan\n0.5 -1.25 2\n1000 0.002 -7.5 17\n-0.125,0.25,3.5,1,2\n");
  expectRows(readCloud(p), false);
  writeFile(p, "0 0 0\n1 2 3 0 0 1\n");
  EXPECT_THAT(errorOf(p),
              HasSubstr("plain.xyz: line 2: expected three values (x y z) as on line 1, found 6"));
  writeFile(p, "0 0\n");
  EXPECT_THAT(errorOf(p), HasSubstr("line 1: expected x y z, or x y z nx ny nz"));

  // PLY with x y z only; written back as a cloud and read again. (Written
  // with normals, it is what qznormals writes; the mesh test reads them back.)
  std::string const q = tempPath("plain.ply");
  writeFile(q,
            "ply\nformat ascii 1.0\nelement vertex 2\nproperty float x\nproperty float y\nproperty float z\n"
            "end_header\n1 2 3\n4 5 6\n");
  OrientedCloud const d = readCloud(q);
  ASSERT_EQ(d.size(), 2u);
  EXPECT_FALSE(d.hasNormals());
  writePly(q, d);
  OrientedCloud const e = readCloud(q);
  EXPECT_TRUE(e.points == d.points && !e.hasNormals());
  EXPECT_EQ(readFile(q).find("element face"), std::string::npos);
}

// A file that is not there yet, and the text of a refusal, are the command
// line's checks.
TEST(CloudIO, WritabilityIsCheckedWithoutHarm)
{
  std::string const kept = tempPath("kept.txt");
  writeFile(kept, "keep me");
  EXPECT_NO_THROW(checkWritable(kept));
  EXPECT_EQ(readFile(kept), "keep me");
  EXPECT_THROW(checkWritable(testing::TempDir()), std::runtime_error);
}
