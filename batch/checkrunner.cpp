#include "batch/checkrunner.h"

#include "batch/tasklist.h"

namespace tarvoqc {

CheckRunner::CheckRunner(const TaskItem& item, CheckLevel level, int decoderThreadOption,
                         int priority, const ClipCheckOptions& options)
    : m_itemId(item.id()), m_path(item.path()), m_level(level),
      m_decoderThreadOption(decoderThreadOption), m_priority(priority)
{
    setStartPriority(priority);
    m_checker.setOptions(options);
}

CheckRunner::~CheckRunner()
{
    Stop();
    m_checker.Close();
}

void CheckRunner::StartCheck()
{
    m_checker.setInterruptFlag(stopFlag());
    if (Start()) {
        SetPriority(m_priority);
        return;
    }
    m_checker.Open(m_path, m_level, m_decoderThreadOption);
    m_checker.Close();
}

// Everything the check holds lives in m_checker, never in this frame: a forced abort may
// leave the thread from inside Open or Run (see WorkerThread), and the destructor then
// frees it all.
int CheckRunner::Run()
{
    if (m_checker.Open(m_path, m_level, m_decoderThreadOption)) {
        m_checker.Run(stopFlag());
    }
    m_checker.Close();
    return 0;
}

} // namespace tarvoqc
