// The HTML report of `jxcache simulate`: one self-contained page (no scripts, no fonts, no
// network) that a person can keep with the run. Key figures as cards, the passes and every figure
// of the summary as tables, and SVG charts the tool draws itself, each as wide as the page:
// memory against the budget with the purges marked, hit rate and frames per second over time,
// the distribution of render times, the disk cache's size and write queue, and one strip per pass
// with a cell per request coloured by how it was served; when content maps were taken, one strip
// per map with a cell per frame coloured by what the cache held of it. Then the settings and the
// run's metadata (version, time, host, command line). Every text from outside is escaped, and the
// page is well-formed XML (XHTML) so that any XML parser accepts it.
#pragma once

#include <string>

#include "tools/jxcache/session.h"

namespace jx::tool {

// The report's text.
std::string RenderHtmlReport(const SessionResult& r);

// A report file written whole or not at all: the temporary beside the target is tried at once
// (so an unwritable path fails before the session runs), then made again on Commit and renamed
// over the target. Destroyed uncommitted, it removes the temporary.
class ReportFile {
 public:
  // Throws ToolError when `path` is a folder or the temporary cannot be created.
  explicit ReportFile(std::string path);
  ~ReportFile();
  ReportFile(const ReportFile&) = delete;
  ReportFile& operator=(const ReportFile&) = delete;
  // Writes `text`, then renames; throws ToolError (and removes the temporary) on failure.
  void Commit(const std::string& text);

 private:
  std::string path_, temp_;
  bool committed_ = false;
};

}  // namespace jx::tool
