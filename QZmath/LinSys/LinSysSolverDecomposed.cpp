#include "QZmath/LinSys/LinSysSolverDecomposed.h"

#include <cstddef>
#include <memory>
#include <vector>

#include "QZmath/LinSys/detail/MklThreads.h"
#include "QZmath/LinSys/detail/SolverArguments.h"
#include "QZsys/Progress.h"
#include "QZsys/Threading.h"

namespace REmath
{
namespace
{
// One block of the tree: a leaf is solved directly, a merged block
// iteratively from what its halves left in the solution.
template <class T, class System> class tf_subsystemTask : public IVescaInvokeProc
{
public:
  /// `rightPart` and `solution` are already shifted to the block's first row.
  tf_subsystemTask(System const * system, T const * rightPart, T * solution, int firstRow, int endRow,
                   double eps, int maxIterations, bool hasChildren)
      : m_system(system), m_rightPart(rightPart), m_solution(solution), m_iFirstRow(firstRow),
        m_iEndRow(endRow), m_eps(eps), m_iMaxIterations(maxIterations), m_bSucceeded(false), m_bDone(false),
        m_iIterationsUsed(0), m_bHasChildren(hasChildren)
  {
  }
  ~tf_subsystemTask() override = default;

  void run() override
  {
    auto const * matrix = dynamic_cast<ICsrMatrix<T> const *>(m_system);
    if (matrix == nullptr)
    {
      // Nothing to solve without a matrix; the rows keep their zeros.
      m_iIterationsUsed = 0;
      m_bSucceeded = true;
      m_bDone = true;
      return;
    }
    // The block is copied out of the matrix unless it is all of it; the copy
    // is clipped to the matrix, so it never reaches past the block's rows.
    CCSRSquareMatrix<T> local;
    ICsrMatrix<T> const * block = matrix;
    if (m_iFirstRow != 0 || m_iEndRow != matrix->getMatrixSize())
    {
      local.makeSelfSubMatrix(m_iFirstRow, m_iEndRow, *matrix);
      block = &local;
    }

    if (!m_bHasChildren)
    {
      m_iIterationsUsed = 0;
      // A failed leaf keeps its rows as they were; the merged block above
      // starts from them.
      CLinSysSolverSparseDss<T> direct;
      (void)direct.solveForExplicitMatrix(m_solution, *block, m_system->isPositiveDefinite(), m_rightPart,
                                          nullptr);
      m_bSucceeded = true;
    }
    else
    {
      CLinSysSolverSparseMKL<T> iterative(static_cast<T>(m_eps), m_iMaxIterations);
      m_iIterationsUsed = iterative.solveForExplicitMatrix(m_solution, *block, m_rightPart, nullptr);
      m_bSucceeded = m_iIterationsUsed >= 0;
    }
    m_bDone = true;
  }

  bool isSucceeded() const { return m_bSucceeded; }
  bool isDone() const { return m_bDone; }
  int iterationsUsed() const { return m_iIterationsUsed; }

private:
  System const * m_system;
  T const * m_rightPart;
  T * m_solution;
  int m_iFirstRow;
  int m_iEndRow;
  double m_eps;
  int m_iMaxIterations;
  bool m_bSucceeded;
  bool m_bDone;
  int m_iIterationsUsed;
  bool m_bHasChildren;
};

// The tree of one right part: a node per task, with its two sub-tasks (null
// for a leaf). Children are appended before their parent, so the last node
// is the root.
template <class Task> class tf_BinaryDependentTaskManager
{
public:
  struct Node
  {
    Task * task;
    Node const * left;
    Node const * right;
  };

  virtual ~tf_BinaryDependentTaskManager() = default;

  Node const * append(Task * task, Node const * left, Node const * right)
  {
    m_nodes.push_back(std::unique_ptr<Node>(new Node{task, left, right}));
    return m_nodes.back().get();
  }
  Node const * root() const { return m_nodes.empty() ? nullptr : m_nodes.back().get(); }

  /// Level 0 holds the root, level k+1 the sub-tasks of level k, left before
  /// right. A level runs only after every deeper one, which is all the
  /// ordering the tree needs.
  std::vector<std::vector<Task *>> levels() const
  {
    std::vector<std::vector<Task *>> result;
    std::vector<Node const *> current;
    if (root() != nullptr)
      current.push_back(root());
    while (!current.empty())
    {
      std::vector<Task *> tasks;
      std::vector<Node const *> next;
      for (Node const * node : current)
      {
        tasks.push_back(node->task);
        if (node->left != nullptr)
          next.push_back(node->left);
        if (node->right != nullptr)
          next.push_back(node->right);
      }
      result.push_back(std::move(tasks));
      current.swap(next);
    }
    return result;
  }

private:
  std::vector<std::unique_ptr<Node>> m_nodes;
};

// Everything one right part needs, released together however the solve
// leaves. All tasks write into the one solution, each in its own rows.
template <class T> struct tf_RightPartContext
{
  typedef tf_subsystemTask<T, ILinearSystemReadOnly<T>> Task;

  ILinearSystemReadOnly<T> const * system;
  IEqSysResultReciever<T> * reciever;
  std::vector<int> const * boundaries;
  std::vector<T> solution;
  std::vector<T> rightPart;
  std::vector<std::unique_ptr<Task>> tasks;
  double eps;
  int maxIterations;
  tf_BinaryDependentTaskManager<Task> tree;

  /// The tree over boundaries[p] .. boundaries[q].
  typename tf_BinaryDependentTaskManager<Task>::Node const * build(std::size_t p, std::size_t q)
  {
    if (p == q)
      return nullptr;
    std::size_t const m = p + (q - p) / 2;
    int const first = (*boundaries)[p];
    int const end = (*boundaries)[q];
    bool const hasChildren = m != p && m != q;
    tasks.push_back(std::unique_ptr<Task>(new Task(system, rightPart.data() + first, solution.data() + first,
                                                   first, end, eps, maxIterations, hasChildren)));
    Task * task = tasks.back().get();
    typename tf_BinaryDependentTaskManager<Task>::Node const * left = nullptr;
    typename tf_BinaryDependentTaskManager<Task>::Node const * right = nullptr;
    if (hasChildren)
    {
      left = build(p, m);
      right = build(m, q);
    }
    return tree.append(task, left, right);
  }
};

// A task run beside others: MKL is held to one thread in it, so that tasks
// running side by side do not each start a team of MKL threads.
class TF_SingleMklThreadProc : public IVescaInvokeProc
{
public:
  explicit TF_SingleMklThreadProc(IVescaInvokeProc * task) : m_task(task) {}
  void run() override
  {
    detail::CSingleMklThreadScope scope;
    m_task->run();
  }

private:
  IVescaInvokeProc * m_task;
};

// Runs the tasks of one level, at most `threads` at a time; the sum of their
// iterations, or -1 when one did not succeed.
template <class Task> int tf_runLevel(std::vector<Task *> const & level, CProgressCounter * progress)
{
  int const threads = CVescaThreadingTasksHelper::getNumOfPhisicalThread();
  std::size_t const count = level.size();
  int sum = 0;
  std::vector<Task *> batch;
  for (std::size_t j = 0; j < count; ++j)
  {
    if (progress != nullptr)
      progress->SetPosFloat(static_cast<double>(j) / static_cast<double>(count));
    batch.push_back(level[j]);
    if (static_cast<int>(batch.size()) < threads && j + 1 < count)
      continue;

    if (threads < 2)
    {
      batch.front()->run();
    }
    else
    {
      // A task alone keeps MKL's own threads.
      bool const limitMkl = batch.size() > 1;
      std::vector<std::unique_ptr<TF_SingleMklThreadProc>> wrapped;
      std::vector<IVescaInvokeProc *> procs;
      for (Task * task : batch)
      {
        if (limitMkl)
        {
          wrapped.push_back(std::unique_ptr<TF_SingleMklThreadProc>(new TF_SingleMklThreadProc(task)));
          procs.push_back(wrapped.back().get());
        }
        else
        {
          procs.push_back(task);
        }
      }
      CVescaThreadingTasksHelper::performInParallel(procs.data(), static_cast<int>(procs.size()), nullptr);
    }
    for (Task * task : batch)
    {
      if (!task->isDone() || !task->isSucceeded())
        return -1;
      sum += task->iterationsUsed();
    }
    batch.clear();
  }
  if (progress != nullptr)
    progress->SetPosFloat(1.0);
  return sum;
}

bool tf_areBoundariesUsable(std::vector<int> const & boundaries, int n)
{
  for (std::size_t k = 0; k < boundaries.size(); ++k)
  {
    if (boundaries[k] < 0 || boundaries[k] > n || (k > 0 && boundaries[k] < boundaries[k - 1]))
      return false;
  }
  return true;
}
} // namespace

// ---- the core --------------------------------------------------------------------

template <class T>
CLinSysSolverDecomposed<T>::CLinSysSolverDecomposed(std::vector<int> const & boundaries, double eps,
                                                    int maxIterations)
    : m_boundaries(boundaries), m_eps(eps), m_iMaxIterations(maxIterations), m_iIterationsUsed(0)
{
}

template <class T>
bool CLinSysSolverDecomposed<T>::onSolveSystem(ILinearSystemReadOnly<T> const & system, int nRightParts,
                                               IVertexPosInformer<T> const ** informers,
                                               IEqSysResultReciever<T> ** recievers,
                                               CProgressCounter * progress)
{
  if (!detail::areRightPartsUsable(nRightParts, informers, recievers))
    return false;

  int const n = system.GetEquationsNumber();
  if (m_boundaries.empty() || m_boundaries.front() != 0)
    m_boundaries.insert(m_boundaries.begin(), 0);
  if (m_boundaries.back() != n)
    m_boundaries.push_back(n);
  m_iIterationsUsed = 0;
  if (!tf_areBoundariesUsable(m_boundaries, n))
    return false;

  for (int i = 0; i < nRightParts; ++i)
  {
    CPrgCntSubPhase rightPartPhase(progress, static_cast<double>(i) / nRightParts, 1.0 / nRightParts, 0,
                                   true);
    tf_RightPartContext<T> context;
    context.system = &system;
    context.reciever = recievers[i];
    context.boundaries = &m_boundaries;
    context.solution.assign(static_cast<std::size_t>(n), T(0));
    context.rightPart.assign(static_cast<std::size_t>(n), T(0));
    context.eps = m_eps;
    context.maxIterations = m_iMaxIterations;
    system.SetSingleRightPart(context.rightPart.data(), *informers[i]);

    context.build(0, m_boundaries.size() - 1);
    auto const levels = context.tree.levels();
    std::size_t const levelCount = levels.size();
    int sum = 0;
    for (std::size_t j = 0; j < levelCount; ++j)
    {
      CPrgCntSubPhase levelPhase(progress, static_cast<double>(j) / levelCount, 1.0 / levelCount, 0, true);
      int const result = tf_runLevel(levels[levelCount - 1 - j], progress);
      if (result < 0)
        return false;
      sum += result;
    }
    m_iIterationsUsed += sum;
    system.SetSingleSolution(context.solution.data(), *context.reciever);
  }
  return true;
}

// ---- the complete solver ---------------------------------------------------------

template <class T>
CLinSysSolverSpaceDecomposer<T>::CLinSysSolverSpaceDecomposer(std::vector<int> const & boundaries, double eps,
                                                              int maxIterations)
    : m_boundaries(boundaries), m_eps(eps), m_iMaxIterations(maxIterations), m_iIterationsUsed(0)
{
}

template <class T>
bool CLinSysSolverSpaceDecomposer<T>::OnSolveSystem(int nRightParts, IVertexPosInformer<T> const ** informers,
                                                    IEqSysResultReciever<T> ** recievers,
                                                    CProgressCounter * progress)
{
  CLinSysSolverDecomposed<T> core(m_boundaries, m_eps, m_iMaxIterations);
  bool const solved = this->solveWithCore(core, nRightParts, informers, recievers, progress);
  m_iIterationsUsed = core.getIterationsUsed();
  return solved;
}

template class CLinSysSolverDecomposed<float>;
template class CLinSysSolverDecomposed<double>;
template class CLinSysSolverCompose<float, CCSRSstorage<float>, CLinSysSolverDecomposed<float>>;
template class CLinSysSolverCompose<double, CCSRSstorage<double>, CLinSysSolverDecomposed<double>>;
template class CLinSysSolverSpaceDecomposer<float>;
template class CLinSysSolverSpaceDecomposer<double>;
} // namespace REmath
