#include "QZmath/VolTriang/jbProcess.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sys/mman.h>
#include <vector>

namespace VolTr
{
namespace
{
template <class T> T * jbAlloc(std::size_t count = 1)
{
  void * p = std::calloc(count, sizeof(T));
  if (!p)
    throw std::bad_alloc();
  return static_cast<T *>(p);
}

inline int jbHash(int i, int j, int k) { return (((i & 31) << 5 | (j & 31)) << 5) | (k & 31); }

inline bool lexLess(int i1, int j1, int k1, int i2, int j2, int k2)
{
  if (i1 != i2)
    return i1 < i2;
  if (j1 != j2)
    return j1 < j2;
  return k1 < k2;
}

inline int bit(int n, int b) { return (n >> b) & 1; }

const int st_faceBit[6] = {2, 2, 1, 1, 0, 0};

// Lattice indices packed into one 64-bit key: 19 bits per axis, offset by
// 2^18, and 5 bits for the step to an edge's other end (or 31 for a point).
constexpr int PACK_LIMIT = (1 << 18) - 2;
inline std::uint64_t tf_pack(int i, int j, int k, int code)
{
  std::uint64_t const o = 1u << 18;
  return ((static_cast<std::uint64_t>(i) + o) << 43) | ((static_cast<std::uint64_t>(j) + o) << 24) |
         ((static_cast<std::uint64_t>(k) + o) << 5) | static_cast<std::uint64_t>(code);
}

// An open-addressing map from packed keys, for the deferred walk's corners,
// cubes and edges: a lookup costs a probe or two whatever the surface's size,
// where the chained tables of fixed size grow long chains.
template <class V> class tf_PackedMap
{
public:
  V * find(std::uint64_t key)
  {
    if (m_keys.empty())
      return nullptr;
    for (std::size_t h = hash(key) & m_mask;; h = (h + 1) & m_mask)
    {
      if (m_keys[h] == key)
        return &m_values[h];
      if (m_keys[h] == EMPTY)
        return nullptr;
    }
  }
  /// Adds a key that is not there.
  void insert(std::uint64_t key, V const & value)
  {
    if (2 * (m_count + 1) > m_keys.size())
      grow();
    std::size_t h = hash(key) & m_mask;
    while (m_keys[h] != EMPTY)
      h = (h + 1) & m_mask;
    m_keys[h] = key;
    m_values[h] = value;
    ++m_count;
  }

private:
  static constexpr std::uint64_t EMPTY = ~std::uint64_t(0);
  static std::size_t hash(std::uint64_t k)
  {
    k ^= k >> 33;
    k *= 0xff51afd7ed558ccdULL;
    k ^= k >> 33;
    return static_cast<std::size_t>(k);
  }
  void grow()
  {
    std::size_t const size = m_keys.empty() ? 4096 : 2 * m_keys.size();
    std::vector<std::uint64_t> keys(size, EMPTY);
    std::vector<V> values(size);
    keys.swap(m_keys);
    values.swap(m_values);
    m_mask = size - 1;
    m_count = 0;
    for (std::size_t h = 0; h < keys.size(); ++h)
      if (keys[h] != EMPTY)
        insert(keys[h], values[h]);
  }
  std::vector<std::uint64_t> m_keys;
  std::vector<V> m_values;
  std::size_t m_mask = 0;
  std::size_t m_count = 0;
};
} // namespace

// The state of a deferred walk: two batches of vertices that have an index
// but no position yet, with the triangles recorded while each was filled. One
// fills while the solver works on the other.
struct jbDeferred
{
  struct Triangle
  {
    int a, b, c;
    int count; // the vertex count the sink would have seen
  };
  struct Batch
  {
    int first = 0; // index of its first vertex
    std::vector<jbEdgeJob> jobs;
    std::vector<jbVertex> results;
    std::vector<Triangle> triangles;
  };
  jbVertexSolver * solver;
  int batch;
  jbLatticeFunction * lattice = nullptr;
  Batch slots[2];
  int filling = 0;
  bool inFlight = false;
  // The walk's own tables, when the lattice indices fit the packed keys.
  bool packed = false;
  tf_PackedMap<jbCornerlist *> corners;
  tf_PackedMap<char> centers;
  tf_PackedMap<int> edges;
  // A corner with the vertices of the edges to its 13 neighbours that come
  // after it in lexicographic order: the walk finds an edge's vertex through
  // the corner it already holds, without a lookup.
  struct CornerRecord
  {
    jbAheadCorner ahead;
    int edges[13];
  };
  // Corners valued ahead by the solver: offered in chunks, oldest first.
  bool ahead = false;
  std::vector<jbAheadCorner *> toOffer;
  std::vector<std::unique_ptr<CornerRecord[]>> cornerChunks;
  std::size_t cornersInChunk = 0;

  jbCornerlist * newCorner()
  {
    constexpr std::size_t CHUNK = 4096;
    if (cornerChunks.empty() || cornersInChunk == CHUNK)
    {
      // Owned before the list grows: a list that cannot grow must not lose it.
      std::unique_ptr<CornerRecord[]> chunk(new CornerRecord[CHUNK]());
      cornerChunks.push_back(std::move(chunk));
      cornersInChunk = 0;
    }
    CornerRecord & r = cornerChunks.back()[cornersInChunk++];
    for (int & e : r.edges)
      e = -1;
    return &r.ahead.corner;
  }
  static CornerRecord * record(jbCornerlist * c) { return reinterpret_cast<CornerRecord *>(c); }
  // The slot of the step to a following neighbour, or -1.
  static int forwardSlot(int di, int dj, int dk)
  {
    if (dj < -1 || dj > 1 || dk < -1 || dk > 1)
      return -1;
    if (di == 1)
      return (dj + 1) * 3 + (dk + 1);
    if (di == 0 && dj == 1)
      return 9 + (dk + 1);
    if (di == 0 && dj == 0 && dk == 1)
      return 12;
    return -1;
  }
  // The step from an edge's first end to its second, when both are
  // neighbours on the lattice (always so in the walk); -1 otherwise.
  static int edgeCode(int di, int dj, int dk)
  {
    if (di < -1 || di > 1 || dj < -1 || dj > 1 || dk < -1 || dk > 1)
      return -1;
    return (di + 1) * 9 + (dj + 1) * 3 + (dk + 1);
  }

  Batch & current() { return slots[filling]; }
  Batch & other() { return slots[filling ^ 1]; }
};

int jbVertices::add(jbVertex const & v)
{
  if (count >= capacity)
  {
    int const newCapacity = capacity == 0 ? 10 : capacity * 2;
    void * p = std::realloc(items, static_cast<std::size_t>(newCapacity) * sizeof(jbVertex));
    if (!p)
      throw std::bad_alloc();
    items = static_cast<jbVertex *>(p);
    capacity = newCapacity;
  }
  items[count] = v;
  return count++;
}

jbProcess::jbProcess()
    : function(nullptr), triangleProcessor(nullptr), size(0), delta(0), bounds{0, 0, 0}, start(),
      cubes(nullptr), vertices{0, 0, nullptr}, centers(nullptr), corners(nullptr), edges(nullptr),
      m_randState(1), m_deferred(nullptr)
{
}

Point3D_d jbProcess::setpoint(int i, int j, int k) const
{
  // The lattice runs against the axes as the indices rise, half a cube off the
  // start: triangle orientation depends on this sign.
  return Point3D_d(start.x() - (i - 0.5) * size, start.y() - (j - 0.5) * size, start.z() - (k - 0.5) * size);
}

jbCornerlist * jbProcess::setcorner(int i, int j, int k)
{
  if (m_deferred && m_deferred->packed)
  {
    std::uint64_t const key = tf_pack(i, j, k, 31);
    if (jbCornerlist ** known = m_deferred->corners.find(key))
      return *known;
    jbCornerlist * c = m_deferred->newCorner();
    c->i = i, c->j = j, c->k = k;
    c->flag = 0;
    if (m_deferred->ahead)
    {
      // Valued when a cube of it is visited, by whichever thread gets to it
      // first: the solver's threads take the oldest offered.
      m_deferred->corners.insert(key, c);
      std::vector<jbAheadCorner *> & offer = m_deferred->toOffer;
      offer.push_back(&jbDeferred::record(c)->ahead);
      if (offer.size() >= 64)
      {
        m_deferred->solver->offerCorners(offer.data(), static_cast<int>(offer.size()));
        offer.clear();
      }
      return c;
    }
    Point3D_d const p = setpoint(i, j, k);
    c->value =
        m_deferred->lattice ? m_deferred->lattice->corner(i, j, k, p, &c->flag) : (*function)(p, &c->flag);
    m_deferred->corners.insert(key, c);
    return c;
  }
  int const h = jbHash(i, j, k);
  for (jbCornerlist * l = corners[h]; l; l = l->next)
    if (l->i == i && l->j == j && l->k == k)
      return l;
  jbCornerlist * c = jbAlloc<jbCornerlist>();
  c->i = i, c->j = j, c->k = k;
  c->flag = 0;
  // Link only after a successful evaluation: an exception of the function must
  // not leave a corner without a value in the table.
  try
  {
    c->value = (*function)(setpoint(i, j, k), &c->flag);
  }
  catch (...)
  {
    std::free(c);
    throw;
  }
  c->next = corners[h];
  corners[h] = c;
  return c;
}

int jbProcess::setcenter(int i, int j, int k)
{
  if (m_deferred && m_deferred->packed)
  {
    std::uint64_t const key = tf_pack(i, j, k, 31);
    if (m_deferred->centers.find(key))
      return 1;
    m_deferred->centers.insert(key, 1);
    return 0;
  }
  int const h = jbHash(i, j, k);
  for (jbCenterlist * l = centers[h]; l; l = l->next)
    if (l->i == i && l->j == j && l->k == k)
      return 1;
  jbCenterlist * c = jbAlloc<jbCenterlist>();
  c->i = i, c->j = j, c->k = k;
  c->next = centers[h];
  centers[h] = c;
  return 0;
}

void jbProcess::setedge(int i1, int j1, int k1, int i2, int j2, int k2, int vertex)
{
  if (lexLess(i2, j2, k2, i1, j1, k1))
  {
    std::swap(i1, i2);
    std::swap(j1, j2);
    std::swap(k1, k2);
  }
  if (m_deferred && m_deferred->packed)
  {
    int const slot = jbDeferred::forwardSlot(i2 - i1, j2 - j1, k2 - k1);
    jbCornerlist ** corner = slot >= 0 ? m_deferred->corners.find(tf_pack(i1, j1, k1, 31)) : nullptr;
    if (corner)
    {
      jbDeferred::record(*corner)->edges[slot] = vertex;
      return;
    }
    int const code = jbDeferred::edgeCode(i2 - i1, j2 - j1, k2 - k1);
    if (code >= 0)
    {
      m_deferred->edges.insert(tf_pack(i1, j1, k1, code), vertex);
      return;
    }
  }
  int const h = jbHash(i1, j1, k1) + jbHash(i2, j2, k2);
  jbEdgelist * e = jbAlloc<jbEdgelist>();
  e->i1 = i1, e->j1 = j1, e->k1 = k1;
  e->i2 = i2, e->j2 = j2, e->k2 = k2;
  e->vertex = vertex;
  e->next = edges[h];
  edges[h] = e;
}

int jbProcess::getedge(int i1, int j1, int k1, int i2, int j2, int k2)
{
  if (lexLess(i2, j2, k2, i1, j1, k1))
  {
    std::swap(i1, i2);
    std::swap(j1, j2);
    std::swap(k1, k2);
  }
  if (m_deferred && m_deferred->packed)
  {
    int const slot = jbDeferred::forwardSlot(i2 - i1, j2 - j1, k2 - k1);
    if (jbCornerlist ** corner = slot >= 0 ? m_deferred->corners.find(tf_pack(i1, j1, k1, 31)) : nullptr)
      if (jbDeferred::record(*corner)->edges[slot] != -1)
        return jbDeferred::record(*corner)->edges[slot];
    int const code = jbDeferred::edgeCode(i2 - i1, j2 - j1, k2 - k1);
    if (code >= 0)
    {
      int const * known = m_deferred->edges.find(tf_pack(i1, j1, k1, code));
      return known ? *known : -1;
    }
    if (!edges)
      return -1;
  }
  int const h = jbHash(i1, j1, k1) + jbHash(i2, j2, k2);
  for (jbEdgelist * e = edges[h]; e; e = e->next)
    if (e->i1 == i1 && e->j1 == j1 && e->k1 == k1 && e->i2 == i2 && e->j2 == j2 && e->k2 == k2)
      return e->vertex;
  return -1;
}

jbTest jbProcess::find(int sign, Point3D_d from)
{
  jbTest test;
  test.ok = 1;
  test.value = 0;
  double range = size;
  for (int attempt = 0; attempt < 10000; ++attempt)
  {
    double const rx = nextRandom() / 32767.0;
    double const ry = nextRandom() / 32767.0;
    double const rz = nextRandom() / 32767.0;
    test.point = Point3D_d((rx - 0.5) * range + from.x(), (ry - 0.5) * range + from.y(),
                           (rz - 0.5) * range + from.z());
    int flag = 0;
    test.value = (*function)(test.point, &flag);
    if ((test.value > 0) == (sign != 0) && flag == 0)
      return test;
    range *= 1.0005;
  }
  test.ok = 0;
  return test;
}

Point3D_d jbProcess::converge(Point3D_d p1, Point3D_d p2, double value1)
{
  Point3D_d pos, neg;
  if (value1 >= 0)
    pos = p1, neg = p2;
  else
    pos = p2, neg = p1;
  for (int n = 1;; ++n)
  {
    Point3D_d const out((pos.x() + neg.x()) * 0.5, (pos.y() + neg.y()) * 0.5, (pos.z() + neg.z()) * 0.5);
    if (n == 11)
      return out;
    int local = 0; // the flag is computed but not used here
    if ((*function)(out, &local) > 0)
      pos = out;
    else
      neg = out;
  }
}

int jbProcess::vertid(jbCornerlist * c1, jbCornerlist * c2)
{
  int * slot = nullptr;
  if (m_deferred && m_deferred->packed)
  {
    // Every corner of a packed walk is a record of its own tables.
    bool const forward = lexLess(c1->i, c1->j, c1->k, c2->i, c2->j, c2->k);
    jbCornerlist * first = forward ? c1 : c2;
    jbCornerlist * second = forward ? c2 : c1;
    int const code =
        jbDeferred::forwardSlot(second->i - first->i, second->j - first->j, second->k - first->k);
    if (code >= 0)
    {
      slot = &jbDeferred::record(first)->edges[code];
      if (*slot != -1)
        return *slot;
    }
  }
  if (!slot)
  {
    int const known = getedge(c1->i, c1->j, c1->k, c2->i, c2->j, c2->k);
    if (known != -1)
      return known;
  }
  jbVertex v;
  v.normal = Point3D_d();
  if (m_deferred)
  {
    // The index is taken now, in walk order; the position comes with the batch.
    m_deferred->current().jobs.push_back(jbEdgeJob{setpoint(c1->i, c1->j, c1->k),
                                                   setpoint(c2->i, c2->j, c2->k),
                                                   c1->value,
                                                   c2->value,
                                                   {c1->i, c1->j, c1->k},
                                                   {c2->i, c2->j, c2->k}});
    v.position = Point3D_d();
  }
  else
    v.position = converge(setpoint(c1->i, c1->j, c1->k), setpoint(c2->i, c2->j, c2->k), c1->value);
  if (m_mappedVertexBytes && vertices.count >= vertices.capacity)
    addVertexRoom();
  int const index = vertices.add(v);
  if (slot)
    *slot = index;
  else
    setedge(c1->i, c1->j, c1->k, c2->i, c2->j, c2->k, index);
  return index;
}

int jbProcess::dotet(jbCube * cube, int a, int b, int c, int d)
{
  jbCornerlist * ca = cube->corners[a];
  jbCornerlist * cb = cube->corners[b];
  jbCornerlist * cc = cube->corners[c];
  jbCornerlist * cd = cube->corners[d];
  // A value of exactly 0 is on the negative side.
  bool const apos = ca->value > 0, bpos = cb->value > 0, cpos = cc->value > 0, dpos = cd->value > 0;
  int const index = 8 * apos + 4 * bpos + 2 * cpos + dpos;
  int e1 = 0, e2 = 0, e3 = 0, e4 = 0, e5 = 0, e6 = 0;
  if (apos != bpos)
    e1 = vertid(ca, cb);
  if (apos != cpos)
    e2 = vertid(ca, cc);
  if (apos != dpos)
    e3 = vertid(ca, cd);
  if (bpos != cpos)
    e4 = vertid(cb, cc);
  if (bpos != dpos)
    e5 = vertid(cb, cd);
  if (cpos != dpos)
    e6 = vertid(cc, cd);

  auto one = [&](int x, int y, int z) { return emitTriangle(x, y, z); };
  auto two = [&](int x1, int y1, int z1, int x2, int y2, int z2)
  {
    if (!one(x1, y1, z1))
      return 0;
    return one(x2, y2, z2);
  };
  switch (index)
  {
  case 1:
    return one(e5, e6, e3);
  case 2:
    return one(e2, e6, e4);
  case 3:
    return two(e3, e5, e4, e3, e4, e2);
  case 4:
    return one(e1, e4, e5);
  case 5:
    return two(e3, e1, e4, e3, e4, e6);
  case 6:
    return two(e1, e2, e6, e1, e6, e5);
  case 7:
    return one(e1, e2, e3);
  case 8:
    return one(e1, e3, e2);
  case 9:
    return two(e1, e5, e6, e1, e6, e2);
  case 10:
    return two(e1, e3, e6, e1, e6, e4);
  case 11:
    return one(e1, e5, e4);
  case 12:
    return two(e3, e2, e4, e3, e4, e5);
  case 13:
    return one(e6, e2, e4);
  case 14:
    return one(e5, e3, e6);
  default:
    return 1;
  }
}

void jbProcess::testface(int i, int j, int k, jbCube * old, int face, int c1, int c2, int c3, int c4)
{
  bool const pos = old->corners[c1]->value > 0;
  if ((old->corners[c2]->value > 0) == pos && (old->corners[c3]->value > 0) == pos &&
      (old->corners[c4]->value > 0) == pos)
    return; // the surface does not cross this face
  if (std::abs(i) > bounds[0] || std::abs(j) > bounds[1] || std::abs(k) > bounds[2])
    return;
  if (setcenter(i, j, k))
    return;
  jbCubes * fresh = jbAlloc<jbCubes>();
  jbCube & cube = fresh->cube;
  cube.i = i, cube.j = j, cube.k = k;
  int const shared[4] = {c1, c2, c3, c4};
  int const flip = 1 << st_faceBit[face];
  for (int c : shared)
    cube.corners[c ^ flip] = old->corners[c];
  try
  {
    for (int n = 0; n < 8; ++n)
      if (!cube.corners[n])
        cube.corners[n] = setcorner(i + bit(n, 2), j + bit(n, 1), k + bit(n, 0));
  }
  catch (...)
  {
    std::free(fresh);
    throw;
  }
  // A flagged corner ends the surface here (a hole or the border of an open
  // surface): the cube stays marked as seen and is not visited.
  for (jbCornerlist * c : cube.corners)
    if (c->flag != 0)
    {
      std::free(fresh);
      return;
    }
  fresh->next = cubes;
  cubes = fresh;
}

void jbProcess::begin(jbFunction & f, double s, jbTriangleProcessor & sink)
{
  function = &f;
  triangleProcessor = &sink;
  size = s;
  delta = s / 100;
  cubes = nullptr;
  vertices = jbVertices{0, 0, nullptr};
  centers = nullptr, corners = nullptr, edges = nullptr;
  seed(1);
  if (m_deferred && m_deferred->packed)
  {
    // Room for the vertices of a surface as large as the box's (a surface
    // crosses fewer cubes): only the pages written become memory, and the
    // list is never copied to a larger one while the walk fills it.
    // The room is mapped apart from the heap: a block this size on the heap
    // would push everything allocated after it onto fresh pages above it,
    // while the holes the solve left below went unused.
    double const room =
        6.0 * bounds[0] * bounds[1] + 6.0 * bounds[1] * bounds[2] + 6.0 * bounds[2] * bounds[0];
    if (room >= 1024 && room <= (1 << 25))
    {
      std::size_t const bytes = static_cast<std::size_t>(room) * sizeof(jbVertex);
      void * p =
          mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
      if (p != MAP_FAILED)
      {
        // Written front to back: large pages take one fault per 2 MiB.
        madvise(p, bytes, MADV_HUGEPAGE);
        m_mappedVertexBytes = bytes;
        vertices = jbVertices{0, static_cast<int>(room), static_cast<jbVertex *>(p)};
      }
    }
    return; // the walk keeps its own tables
  }
  centers = jbAlloc<jbCenterlist *>(CENTERS_TABLE_SIZE);
  corners = jbAlloc<jbCornerlist *>(CORNERS_TABLE_SIZE);
  edges = jbAlloc<jbEdgelist *>(EDGES_TABLE_SIZE);
}

int jbProcess::polygonize(jbFunction & f, double s, int * b, Point3D_d startPoint, jbTriangleProcessor & sink)
{
  bounds[0] = b[0], bounds[1] = b[1], bounds[2] = b[2];
  start = startPoint;
  try
  {
    begin(f, s, sink);
    jbTest const in = find(1, start);
    jbTest const out = find(0, start);
    if (!in.ok || !out.ok)
    {
      releaseAll();
      return 1;
    }
    start = converge(in.point, out.point, in.value);
    if (m_deferred)
    {
      if (m_deferred->lattice)
        m_deferred->lattice->setLattice(start, size, bounds);
      m_deferred->solver->setLattice(start, size, bounds);
      m_deferred->ahead = m_deferred->packed && m_deferred->lattice &&
                          !m_deferred->lattice->cornersFlagged() && m_deferred->solver->valuesCorners();
    }

    jbCubes * first = jbAlloc<jbCubes>();
    first->cube.i = first->cube.j = first->cube.k = 0;
    try
    {
      for (int n = 0; n < 8; ++n)
        first->cube.corners[n] = setcorner(bit(n, 2), bit(n, 1), bit(n, 0));
    }
    catch (...)
    {
      std::free(first);
      throw;
    }
    // On the list before anything else can fail, so that the clean-up below
    // frees it too: marking the centre allocates.
    first->next = nullptr;
    cubes = first;
    setcenter(0, 0, 0);

    int const walked = walk();
    if (walked != 0)
    {
      releaseAll();
      return walked;
    }
  }
  catch (...)
  {
    // An interruption or exhausted memory: nothing of the walk survives it.
    releaseAll();
    throw;
  }
  releaseAll();
  return 0;
}

// A corner valued ahead may still be without its value: it gets it here, from
// this thread or from the one already valuing it.
void jbProcess::valued(jbCornerlist * corner)
{
  std::atomic<int> & state = jbDeferred::record(corner)->ahead.state;
  int s = state.load(std::memory_order_acquire);
  while (s != 2)
  {
    if (s == 0 && state.compare_exchange_weak(s, 1, std::memory_order_acquire))
    {
      try
      {
        corner->value = m_deferred->lattice->corner(corner->i, corner->j, corner->k,
                                                    setpoint(corner->i, corner->j, corner->k), &corner->flag);
      }
      catch (...)
      {
        state.store(0, std::memory_order_release);
        throw;
      }
      state.store(2, std::memory_order_release);
      return;
    }
    s = state.load(std::memory_order_acquire); // valued on another thread right now
  }
}

int jbProcess::walk()
{
  while (cubes)
  {
    jbCube c = cubes->cube;
    if (m_deferred && m_deferred->ahead)
      for (jbCornerlist * corner : c.corners)
        valued(corner);
    // Six tetrahedra sharing the diagonal from corner 1 to corner 6.
    if (!dotet(&c, 0, 2, 4, 1) || !dotet(&c, 6, 2, 1, 4) || !dotet(&c, 6, 2, 3, 1) ||
        !dotet(&c, 6, 4, 1, 5) || !dotet(&c, 6, 1, 3, 5) || !dotet(&c, 6, 3, 7, 5))
      return 2;
    jbCubes * top = cubes;
    cubes = cubes->next;
    std::free(top);
    testface(c.i - 1, c.j, c.k, &c, 0, 0, 1, 2, 3);
    testface(c.i + 1, c.j, c.k, &c, 1, 4, 5, 6, 7);
    testface(c.i, c.j - 1, c.k, &c, 2, 0, 1, 4, 5);
    testface(c.i, c.j + 1, c.k, &c, 3, 2, 3, 6, 7);
    testface(c.i, c.j, c.k - 1, &c, 4, 0, 2, 4, 6);
    testface(c.i, c.j, c.k + 1, &c, 5, 1, 3, 5, 7);
    if (m_deferred && static_cast<int>(m_deferred->current().jobs.size()) >= m_deferred->batch &&
        !flushDeferred(false))
      return 2;
  }
  if (m_deferred && !flushDeferred(true))
    return 2;
  return 0;
}

int jbProcess::emitTriangle(int a, int b, int c)
{
  if (m_deferred)
  {
    m_deferred->current().triangles.push_back(jbDeferred::Triangle{a, b, c, vertices.count});
    return 1;
  }
  return (*triangleProcessor)(a, b, c, vertices) != 0 ? 1 : 0;
}

int jbProcess::emitDeferred()
{
  jbDeferred & d = *m_deferred;
  jbDeferred::Batch & b = d.other();
  d.solver->wait();
  d.inFlight = false;
  for (std::size_t k = 0; k < b.results.size(); ++k)
    vertices.items[static_cast<std::size_t>(b.first) + k] = b.results[k];
  // The sink sees each triangle with the vertex list of its moment, so that it
  // announces the same vertices at the same triangles.
  for (jbDeferred::Triangle const & t : b.triangles)
    if ((*triangleProcessor)(t.a, t.b, t.c, jbVertices{t.count, vertices.capacity, vertices.items}) == 0)
      return 0;
  b.jobs.clear();
  b.results.clear();
  b.triangles.clear();
  return 1;
}

int jbProcess::flushDeferred(bool last)
{
  jbDeferred & d = *m_deferred;
  // The batch in flight is done and handed over before the next one starts:
  // the solver works on one batch at a time, while the walk fills the other.
  if (d.inFlight && !emitDeferred())
    return 0;
  jbDeferred::Batch & b = d.current();
  b.results.assign(b.jobs.size(), jbVertex{Point3D_d(), Point3D_d()});
  d.solver->submit(b.jobs.data(), b.results.data(), static_cast<int>(b.jobs.size()));
  d.inFlight = true;
  d.filling ^= 1;
  d.current().first = vertices.count;
  if (last && !emitDeferred())
    return 0;
  return 1;
}

int jbProcess::polygonizeDeferred(jbFunction & f, double s, int * b, Point3D_d startPoint,
                                  jbTriangleProcessor & sink, jbVertexSolver & solver, int batchVertices,
                                  jbLatticeFunction * lattice)
{
  try
  {
    m_deferred = new jbDeferred;
    m_deferred->solver = &solver;
    m_deferred->batch = batchVertices > 0 ? batchVertices : 1;
    m_deferred->lattice = lattice;
    m_deferred->packed =
        b && std::abs(b[0]) <= PACK_LIMIT && std::abs(b[1]) <= PACK_LIMIT && std::abs(b[2]) <= PACK_LIMIT;
    int const result = polygonize(f, s, b, startPoint, sink);
    // A refused triangle can leave a batch in flight: it must end before its
    // buffers go, and so must the valuing of corners offered ahead.
    if (m_deferred->inFlight)
      solver.wait();
    if (m_deferred->ahead)
      solver.withdrawCorners();
    delete m_deferred;
    m_deferred = nullptr;
    return result;
  }
  catch (...)
  {
    if (m_deferred && m_deferred->inFlight)
    {
      try
      {
        solver.wait();
      }
      catch (...)
      {
        // the first failure is the one that passes on
      }
    }
    if (m_deferred && m_deferred->ahead)
      solver.withdrawCorners();
    delete m_deferred;
    m_deferred = nullptr;
    throw;
  }
}

int jbProcess::marchingcubes(jbFunction & f, double s, Point3D_d low, Point3D_d high,
                             jbTriangleProcessor & sink)
{
  bounds[0] = bounds[1] = bounds[2] = 0;
  try
  {
    begin(f, s, sink);
    double const rx = nextRandom() / 32767.0;
    double const ry = nextRandom() / 32767.0;
    double const rz = nextRandom() / 32767.0;
    // The jitter keeps lattice points off any special value of the function.
    start =
        Point3D_d(high.x() - size * 0.5 - (rx * size * 0.001), high.y() - size * 0.5 - (ry * size * 0.001),
                  high.z() - size * 0.5 - (rz * size * 0.001));
    int const nx = static_cast<int>((high.x() - low.x()) / size);
    int const ny = static_cast<int>((high.y() - low.y()) / size);
    int const nz = static_cast<int>((high.z() - low.z()) / size);
    for (int k = 0; k <= nz; ++k)
      for (int j = 0; j <= ny; ++j)
        for (int i = 0; i <= nx; ++i)
        {
          jbCube c;
          c.i = i, c.j = j, c.k = k;
          int positive = 0;
          for (int n = 0; n < 8; ++n)
          {
            c.corners[n] = setcorner(i + bit(n, 2), j + bit(n, 1), k + bit(n, 0));
            positive += c.corners[n]->value > 0;
          }
          if (positive == 0 || positive == 8)
            continue;
          dotet(&c, 0, 2, 4, 1);
          dotet(&c, 6, 2, 1, 4);
          dotet(&c, 6, 2, 3, 1);
          dotet(&c, 6, 4, 1, 5);
          dotet(&c, 6, 1, 3, 5);
          dotet(&c, 6, 3, 7, 5);
        }
  }
  catch (...)
  {
    releaseAll();
    throw;
  }
  releaseAll();
  return 0;
}

namespace
{
// Frees the chains of a hash table and the table itself.
template <class Entry> void tf_freeTable(Entry **& table, int size)
{
  if (!table)
    return;
  for (int h = 0; h < size; ++h)
    for (Entry * l = table[h]; l;)
    {
      Entry * next = l->next;
      std::free(l);
      l = next;
    }
  std::free(table);
  table = nullptr;
}
} // namespace

void jbProcess::freeprocess()
{
  tf_freeTable(centers, CENTERS_TABLE_SIZE);
  tf_freeTable(corners, CORNERS_TABLE_SIZE);
  tf_freeTable(edges, EDGES_TABLE_SIZE);
  if (m_mappedVertexBytes)
    munmap(vertices.items, m_mappedVertexBytes);
  else if (vertices.items)
    std::free(vertices.items);
  vertices = jbVertices{0, 0, nullptr};
  m_mappedVertexBytes = 0;
}

// A mapped vertex list doubles in place or moves its pages, never copies.
void jbProcess::addVertexRoom()
{
  std::size_t const bytes = 2 * m_mappedVertexBytes;
  if (vertices.capacity > (1 << 29) || bytes / sizeof(jbVertex) > static_cast<std::size_t>(1 << 30))
    throw std::bad_alloc();
  void * p = mremap(vertices.items, m_mappedVertexBytes, bytes, MREMAP_MAYMOVE);
  if (p == MAP_FAILED)
    throw std::bad_alloc();
  madvise(p, bytes, MADV_HUGEPAGE);
  vertices.items = static_cast<jbVertex *>(p);
  vertices.capacity = static_cast<int>(bytes / sizeof(jbVertex));
  m_mappedVertexBytes = bytes;
}

void jbProcess::freeCubes()
{
  while (cubes)
  {
    jbCubes * next = cubes->next;
    std::free(cubes);
    cubes = next;
  }
}

void jbProcess::releaseAll()
{
  freeCubes();
  freeprocess();
}
} // namespace VolTr
