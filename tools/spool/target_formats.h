// The formats of an export.
#ifndef TSMAIL_TOOLS_SPOOL_TARGET_FORMATS_H
#define TSMAIL_TOOLS_SPOOL_TARGET_FORMATS_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/work/channel.h"
#include "tools/work/export.h"

namespace Tessaly::tool {

// What a format could not carry. Only the first notes are kept; the others are counted.
class Notes {
  public:
    void add(std::string text);
    std::vector<std::string> shown() const;

  private:
    std::vector<std::string> texts_;
    std::uint64_t more_ = 0;
};

// Writes folders and messages in one format. Functions throw a Failure for what cannot be written.
class FormatWriter {
  public:
    virtual ~FormatWriter() = default;
    virtual void folder(const std::vector<std::string>& names) = 0;
    // A message of the current folder.
    virtual void message(const Item& item) = 0;
    virtual void finish() = 0;
};

// `directory` must outlive the writer. `path` is its name for messages.
std::unique_ptr<FormatWriter> format_writer(ExportFormat format, int directory, std::string path,
                                            Notes& notes);

}  // namespace Tessaly::tool

#endif
