#include "faultinjector.h"

namespace lofthaven::service {

namespace {

std::vector<std::string> segments(const std::string &path)
{
    std::vector<std::string> out;
    size_t start = 0;
    while (start <= path.size()) {
        const auto slash = path.find('/', start);
        const auto end = slash == std::string::npos ? path.size() : slash;
        out.push_back(path.substr(start, end - start));
        if (slash == std::string::npos)
            break;
        start = slash + 1;
    }
    return out;
}

bool matchFrom(const std::vector<std::string> &pat, size_t p, const std::vector<std::string> &seg,
               size_t s)
{
    if (p == pat.size())
        return s == seg.size();
    if (pat[p] == "**") {
        for (size_t k = s; k <= seg.size(); ++k) {
            if (matchFrom(pat, p + 1, seg, k))
                return true;
        }
        return false;
    }
    if (s == seg.size())
        return false;
    if (pat[p] != "*" && pat[p] != seg[s])
        return false;
    return matchFrom(pat, p + 1, seg, s + 1);
}

} // namespace

bool FaultInjector::pathMatches(const std::string &pattern, const std::string &path)
{
    return matchFrom(segments(pattern), 0, segments(path), 0);
}

void FaultInjector::add(Fault fault)
{
    std::lock_guard lock(m_mutex);
    m_faults.push_back(std::move(fault));
}

void FaultInjector::clear()
{
    std::lock_guard lock(m_mutex);
    m_faults.clear();
}

std::vector<FaultInjector::Fault> FaultInjector::list() const
{
    std::lock_guard lock(m_mutex);
    return m_faults;
}

std::optional<FaultInjector::Fault> FaultInjector::take(const std::string &method,
                                                        const std::string &path)
{
    std::lock_guard lock(m_mutex);
    for (auto it = m_faults.begin(); it != m_faults.end(); ++it) {
        if ((it->method == "*" || it->method == method) && pathMatches(it->path, path)) {
            Fault hit = *it;
            ++it->matched;
            if (--it->count <= 0)
                m_faults.erase(it);
            return hit;
        }
    }
    return std::nullopt;
}

} // namespace lofthaven::service
