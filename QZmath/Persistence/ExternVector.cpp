#include "QZmath/Persistence/ExternVector.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <list>
#include <memory>
#include <stdexcept>
#include <vector>

#include <stdio_ext.h>
#include <sys/types.h>

#include "QZsys/TempFile.h"

namespace VescaExtVec
{
struct tf_ElementSlot;

/// What a handle points to. The cell stays with its slot for the slot's life,
/// so a handle stays meaningful while the slot is reused for other elements.
struct ElementCell
{
  tf_ElementSlot * slot = nullptr;
};

/// One cached element. Slots are never removed before clear(): a free slot
/// (refCount -1) keeps its buffer and cell for the next lock.
struct tf_ElementSlot
{
  bool modified = false;
  std::size_t index = 0;
  int refCount = -1;
  std::unique_ptr<ElementCell> cell;
  std::unique_ptr<unsigned char[]> buffer;
};

namespace
{
[[noreturn]] void tf_fail() { throw VsUt::CBadAllocation(); }

class FileVectorVoid final : public ExternVectorVoidInterface
{
public:
  explicit FileVectorVoid(std::size_t elementSize) : m_elementSize(elementSize) {}
  ~FileVectorVoid() override { closeFile(); }
  FileVectorVoid(FileVectorVoid const &) = delete;
  FileVectorVoid & operator=(FileVectorVoid const &) = delete;

  void reserve(std::size_t n) override;
  void resize(std::size_t n, const void * fill) override;
  std::size_t size() const override { return m_size; }
  std::size_t capacity() const override { return m_capacity; }
  void clear() override;
  void * lockElement(std::size_t index, ElementHandle * handle) override;
  void addElementRef(ElementHandle * handle) override;
  void releaseElement(bool modified, ElementHandle * handle) override;

private:
  /// Marks the file position as not on an element boundary: the next seek is
  /// absolute.
  static constexpr std::size_t kPositionUnknown = std::numeric_limits<std::size_t>::max();

  /// Byte offset of element i; a count the file offsets cannot reach fails.
  off_t offsetOf(std::size_t i) const
  {
    if (i > static_cast<std::size_t>(std::numeric_limits<off_t>::max()) / m_elementSize)
      tf_fail();
    return static_cast<off_t>(i * m_elementSize);
  }
  void createFile();
  void closeFile();
  void seekTo(std::size_t i);
  void notePosition();
  void flush()
  {
    if (std::fflush(m_file) != 0)
      failIo();
  }
  /// A transfer or seek failed: what it left in the stream's buffer is
  /// dropped, so that a failure does not come back with every later call, and
  /// the next seek is absolute.
  [[noreturn]] void failIo()
  {
    if (m_file)
    {
      ::__fpurge(m_file);
      std::clearerr(m_file);
    }
    m_positionIndex = kPositionUnknown;
    tf_fail();
  }
  /// Frees a slot whatever holds it; its holders' handles go stale.
  void dropSlot(tf_ElementSlot & slot)
  {
    if (slot.refCount > 0 && slot.cell)
    {
      slot.cell->slot = nullptr;
      try
      {
        m_detachedCells.push_back(std::move(slot.cell));
      }
      catch (std::exception const &)
      {
        (void)slot.cell.release(); // a few bytes lost rather than a dangling handle
      }
    }
    slot.refCount = -1;
  }
  tf_ElementSlot * slotOf(ElementHandle * handle) const
  {
    return handle && *handle ? (*handle)->slot : nullptr;
  }

  std::size_t const m_elementSize;
  std::size_t m_size = 0;
  std::size_t m_capacity = 0;
  off_t m_filePosition = 0;
  std::size_t m_positionIndex = 0;
  std::FILE * m_file = nullptr;
  /// The stream's buffer, as large as one element (at least 2 bytes): it has
  /// to outlive the FILE that uses it.
  std::vector<char> m_streamBuffer;
  std::list<tf_ElementSlot> m_slots;
  /// Cells of slots that were dropped while held (by a shrinking resize or
  /// clear). They point nowhere, so that the holders' late releases find
  /// nothing to do instead of touching a slot that now serves another
  /// element, or freed memory.
  std::vector<std::unique_ptr<ElementCell>> m_detachedCells;
};

void FileVectorVoid::createFile()
{
  std::FILE * file = VsUt::OpenTemporaryFile("Vesca_FileVectorVoid");
  std::vector<char> buffer;
  try
  {
    buffer.resize(std::max<std::size_t>(m_elementSize, 2));
  }
  catch (std::exception const &)
  {
    std::fclose(file);
    tf_fail();
  }
  if (std::setvbuf(file, buffer.data(), _IOFBF, buffer.size()) != 0)
  {
    std::fclose(file);
    tf_fail();
  }
  m_file = file;
  m_streamBuffer.swap(buffer);
  m_size = 0;
  m_capacity = 0;
  m_filePosition = 0;
  m_positionIndex = 0;
}

void FileVectorVoid::closeFile()
{
  if (m_file)
    std::fclose(m_file); // the file has no name: closing it deletes it
  m_file = nullptr;
  m_streamBuffer.clear();
  m_streamBuffer.shrink_to_fit();
}

void FileVectorVoid::notePosition()
{
  off_t const pos = ::ftello(m_file);
  if (pos < 0)
    failIo();
  m_filePosition = pos;
  std::size_t const p = static_cast<std::size_t>(pos);
  m_positionIndex = p % m_elementSize == 0 ? p / m_elementSize : kPositionUnknown;
}

void FileVectorVoid::seekTo(std::size_t i)
{
  if (!m_file)
    tf_fail();
  int rc;
  // A seek stands before every transfer even where the file is already in
  // place: the C library demands one between a read and a write.
  if (m_positionIndex != kPositionUnknown && i == m_positionIndex)
    rc = ::fseeko(m_file, 0, SEEK_CUR);
  else if (m_positionIndex != kPositionUnknown && i == m_positionIndex + 1)
    rc = ::fseeko(m_file, static_cast<off_t>(m_elementSize), SEEK_CUR);
  else
    rc = ::fseeko(m_file, offsetOf(i), SEEK_SET);
  if (rc != 0)
    failIo();
  notePosition();
}

void FileVectorVoid::reserve(std::size_t n)
{
  if (n <= m_capacity)
    return;
  off_t const grow = offsetOf(n - m_capacity);
  offsetOf(n); // the whole file must stay within reach of the offsets
  if (!m_file)
    createFile();
  if (::fseeko(m_file, 0, SEEK_END) != 0)
    failIo();
  notePosition();
  // One byte at the far end makes the file long enough; the file system
  // fills the gap without our writing it.
  if (::fseeko(m_file, grow - 1, SEEK_CUR) != 0)
    failIo();
  if (std::fputc(0, m_file) == EOF)
    failIo();
  flush();
  notePosition();
  m_capacity = n;
}

void FileVectorVoid::resize(std::size_t n, const void * fill)
{
  std::size_t const kLimit = 0x7fffffff;
  if (n > m_capacity)
  {
    if (n > kLimit)
      tf_fail();
    // Doubling keeps a growth by one element at a time linear overall.
    reserve(std::max(n, std::min(m_capacity * 2, kLimit)));
  }
  if (n <= m_size)
  {
    for (tf_ElementSlot & slot : m_slots)
      if (slot.refCount >= 0 && slot.index >= n)
        dropSlot(slot);
    m_size = n;
    return;
  }
  seekTo(m_size);
  if (!fill)
  {
    off_t const ahead = offsetOf(n - m_size) - 1;
    if (::fseeko(m_file, ahead, SEEK_CUR) != 0 || std::fputc(0, m_file) == EOF)
      failIo();
  }
  else
  {
    for (std::size_t k = m_size; k < n; ++k)
      if (std::fwrite(fill, m_elementSize, 1, m_file) != 1)
        failIo();
  }
  flush();
  notePosition();
  m_size = n;
}

void FileVectorVoid::clear()
{
  closeFile();
  for (tf_ElementSlot & slot : m_slots)
    dropSlot(slot);
  m_slots.clear();
  m_size = 0;
  m_capacity = 0;
  m_filePosition = 0;
  m_positionIndex = 0;
}

void * FileVectorVoid::lockElement(std::size_t index, ElementHandle * handle)
{
  if (!handle)
    throw std::invalid_argument("lockElement: null element handle");
  for (tf_ElementSlot & slot : m_slots)
    if (slot.refCount >= 0 && slot.index == index)
    {
      *handle = slot.cell.get();
      ++slot.refCount;
      return slot.buffer.get();
    }

  tf_ElementSlot * slot = nullptr;
  for (tf_ElementSlot & s : m_slots)
    if (s.refCount < 0)
    {
      slot = &s;
      break;
    }
  if (!slot)
  {
    m_slots.emplace_front();
    slot = &m_slots.front();
  }
  try
  {
    if (!slot->buffer)
      slot->buffer.reset(new unsigned char[m_elementSize]);
    if (!slot->cell)
      slot->cell.reset(new ElementCell);
  }
  catch (std::exception const &)
  {
    tf_fail();
  }
  slot->cell->slot = slot;
  slot->refCount = 0;
  slot->index = index;
  slot->modified = false;
  try
  {
    seekTo(index);
    if (std::fread(slot->buffer.get(), m_elementSize, 1, m_file) != 1)
      failIo();
    notePosition();
  }
  catch (...)
  {
    slot->refCount = -1;
    throw;
  }
  *handle = slot->cell.get();
  ++slot->refCount;
  return slot->buffer.get();
}

void FileVectorVoid::addElementRef(ElementHandle * handle)
{
  tf_ElementSlot * slot = slotOf(handle);
  if (slot && slot->refCount > 0)
    ++slot->refCount;
}

void FileVectorVoid::releaseElement(bool modified, ElementHandle * handle)
{
  tf_ElementSlot * slot = slotOf(handle);
  if (!slot || slot->refCount <= 0)
    return; // stale: the element was dropped by a shrinking resize or clear
  if (modified)
    slot->modified = true;
  if (slot->refCount != 1)
  {
    --slot->refCount;
    return;
  }
  if (slot->modified)
  {
    // On failure the hold stays, so that the state is that before the call.
    seekTo(slot->index);
    if (std::fwrite(slot->buffer.get(), m_elementSize, 1, m_file) != 1)
      failIo();
    flush();
    notePosition();
  }
  slot->modified = false;
  slot->refCount = -1;
}
} // namespace

ExternVectorVoidInterface * CreateExternVectorVoid(std::uint64_t elementSize)
{
  static_assert(sizeof(std::size_t) >= sizeof(std::uint64_t), "element sizes are 64-bit");
  if (elementSize == 0)
    throw VsUt::CBadAllocation();
  return new FileVectorVoid(static_cast<std::size_t>(elementSize));
}
} // namespace VescaExtVec
