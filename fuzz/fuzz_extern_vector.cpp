// The external vector driven by a program of operations that the bytes spell
// (reserve, resize with and without fill, lock, add a hold, change a held
// copy, release, clear), compared at every step with a model in memory: the
// bytes of the file, the copies held, and which holds went stale.

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <vector>

#include "FuzzSupport.h"
#include "QZmath/Persistence/ExternVector.h"

namespace
{
using Bytes = std::vector<std::uint8_t>;

/// One cached element of the model: shared by all its holds.
struct Copy
{
  Bytes bytes;
  bool modified = false;
  int holds = 0;
  void * address = nullptr;
};

struct Hold
{
  VescaExtVec::ElementHandle handle = nullptr;
  std::size_t index = 0;
  std::shared_ptr<Copy> copy; // null once a shrink or a clear dropped it
};

class Model
{
public:
  explicit Model(std::size_t elementSize) : m_elementSize(elementSize) {}

  void reserve(std::size_t n)
  {
    if (n > m_capacity)
      growFile(n);
  }
  void resize(std::size_t n, std::uint8_t const * fill)
  {
    if (n > m_capacity)
      growFile(std::max(n, m_capacity * 2));
    if (n <= m_size)
    {
      for (auto it = m_copies.begin(); it != m_copies.end();)
        if (it->first >= n)
          it = m_copies.erase(it);
        else
          ++it;
      for (Hold & h : m_holds)
        if (h.copy && h.index >= n)
          h.copy.reset();
      m_size = n;
      return;
    }
    if (fill)
      for (std::size_t i = m_size; i < n; ++i)
        std::memcpy(&m_file[i * m_elementSize], fill, m_elementSize);
    else
      m_file[n * m_elementSize - 1] = 0; // the one byte written to reach the new end
    m_size = n;
  }
  void clear()
  {
    m_file.clear();
    m_copies.clear();
    for (Hold & h : m_holds)
      h.copy.reset();
    m_size = m_capacity = 0;
  }
  /// The model's side of a lock; checks the vector's answer.
  void lock(std::size_t index, VescaExtVec::ElementHandle handle, void * address)
  {
    auto & copy = m_copies[index];
    if (!copy)
    {
      copy = std::make_shared<Copy>();
      copy->bytes.assign(m_file.begin() + static_cast<std::ptrdiff_t>(index * m_elementSize),
                         m_file.begin() + static_cast<std::ptrdiff_t>((index + 1) * m_elementSize));
      copy->address = address;
    }
    qzfuzz::check(copy->address == address, "two holds of one element have different copies");
    qzfuzz::check(std::memcmp(address, copy->bytes.data(), m_elementSize) == 0,
                  "a locked element differs from the model");
    ++copy->holds;
    m_holds.push_back(Hold{handle, index, copy});
  }
  void addHold(std::size_t k)
  {
    Hold h = m_holds[k];
    if (h.copy)
      ++h.copy->holds;
    m_holds.push_back(h);
  }
  void change(std::size_t k, std::uint8_t value)
  {
    Hold & h = m_holds[k];
    if (!h.copy)
      return; // a stale hold's copy is no longer the caller's to touch
    std::memset(h.copy->address, value, m_elementSize);
    std::memset(h.copy->bytes.data(), value, m_elementSize);
  }
  void release(std::size_t k, bool modified)
  {
    Hold h = m_holds[k];
    m_holds.erase(m_holds.begin() + static_cast<std::ptrdiff_t>(k));
    if (!h.copy)
      return;
    if (modified)
      h.copy->modified = true;
    if (--h.copy->holds > 0)
      return;
    if (h.copy->modified)
      std::memcpy(&m_file[h.index * m_elementSize], h.copy->bytes.data(), m_elementSize);
    m_copies.erase(h.index);
  }

  std::size_t size() const { return m_size; }
  std::size_t capacity() const { return m_capacity; }
  std::vector<Hold> & holds() { return m_holds; }

private:
  void growFile(std::size_t n)
  {
    m_file.resize(n * m_elementSize, 0);
    m_capacity = n;
  }

  std::size_t m_elementSize;
  std::size_t m_size = 0;
  std::size_t m_capacity = 0;
  Bytes m_file;
  std::map<std::size_t, std::shared_ptr<Copy>> m_copies;
  std::vector<Hold> m_holds;
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
  qzfuzz::ByteReader in(data, size);
  std::size_t const elementSize = 1 + in.byte() % 40;
  std::unique_ptr<VescaExtVec::ExternVectorVoidInterface> vec(VescaExtVec::CreateExternVectorVoid(elementSize));
  Model model(elementSize);
  std::vector<std::uint8_t> fill(elementSize);
  int steps = 0;
  while (!in.empty() && ++steps <= 200)
  {
    std::uint8_t const op = in.byte();
    switch (op % 8)
    {
    case 0:
    {
      std::size_t const n = in.word() % 600;
      vec->reserve(n);
      model.reserve(n);
      break;
    }
    case 1:
    case 2:
    {
      std::size_t const n = in.word() % 600;
      bool const withFill = op % 8 == 2;
      std::memset(fill.data(), in.byte(), elementSize);
      vec->resize(n, withFill ? fill.data() : nullptr);
      model.resize(n, withFill ? fill.data() : nullptr);
      break;
    }
    case 3:
    case 4:
    {
      if (model.size() == 0)
        break;
      std::size_t const index = in.word() % model.size();
      VescaExtVec::ElementHandle handle = nullptr;
      void * address = vec->lockElement(index, &handle);
      model.lock(index, handle, address);
      break;
    }
    case 5:
    {
      if (model.holds().empty())
        break;
      std::size_t const k = in.byte() % model.holds().size();
      vec->addElementRef(&model.holds()[k].handle);
      model.addHold(k);
      break;
    }
    case 6:
    {
      if (model.holds().empty())
        break;
      std::size_t const k = in.byte() % model.holds().size();
      std::uint8_t const value = in.byte();
      if (value & 1)
        model.change(k, value);
      VescaExtVec::ElementHandle handle = model.holds()[k].handle;
      vec->releaseElement(value & 2, &handle);
      model.release(k, value & 2);
      break;
    }
    default:
      if (in.byte() % 4 == 0)
      {
        vec->clear();
        model.clear();
      }
    }
    qzfuzz::check(vec->size() == model.size() && vec->capacity() == model.capacity(),
                  "size or capacity differs from the model");
  }
  // Every element still reads as the model says once all holds are gone.
  while (!model.holds().empty())
  {
    VescaExtVec::ElementHandle handle = model.holds().back().handle;
    vec->releaseElement(false, &handle);
    model.release(model.holds().size() - 1, false);
  }
  for (std::size_t i = 0; i < model.size(); ++i)
  {
    VescaExtVec::ElementHandle handle = nullptr;
    void * address = vec->lockElement(i, &handle);
    model.lock(i, handle, address);
    vec->releaseElement(false, &handle);
    model.release(model.holds().size() - 1, false);
  }
  return 0;
}
