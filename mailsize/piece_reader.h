// PieceReader - a file's text in the pieces that fgets returns.
#ifndef TSMAIL_MAILSIZE_PIECE_READER_H
#define TSMAIL_MAILSIZE_PIECE_READER_H

#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <string_view>

#include "base/io.h"
#include "base/locked_stream.h"

namespace Tessaly::mailsize {

// A piece is a line with its line end, or as much of a longer line as the limit allows; the rest of
// that line makes further pieces. Nothing is allocated; the buffer lies inside the object.
class PieceReader {
  public:
    // A size file and what an append makes of it are read at once.
    static constexpr std::size_t kBuffer = 8192;

    // limit: 1 to 254 bytes. Reads from the file's beginning; the descriptor's offset stays. A file
    // of more than `longest` bytes ends by an error.
    PieceReader(int fd, std::size_t limit, off_t longest = base::kLongestFile)
        : fd_(fd), limit_(limit), longest_(longest) {}
    // The same for a stream. One without a descriptor is read from where it stands.
    PieceReader(const base::LockedStream& file, std::size_t limit) : PieceReader(file.fd(), limit) {
        stream_ = file.get();
    }
    PieceReader(const PieceReader&) = delete;
    PieceReader& operator=(const PieceReader&) = delete;

    // The next piece, valid until the next call; empty at the end of the file and on an error.
    std::string_view next();
    // Whether the reading ended by an error, which errno holds then.
    bool failed() const { return failed_; }
    // Whether all pieces so far were read at once.
    bool read_once() const { return reads_ == 1; }
    // Where the last piece begins in the file.
    off_t piece_offset() const { return piece_offset_; }

  private:
    std::string_view first_piece() const;
    bool is_whole(std::string_view piece) const;
    void fill();
    ssize_t read_some(char* to, std::size_t room);

    int fd_;
    std::FILE* stream_ = nullptr;  // read if there is no descriptor
    std::size_t limit_;
    off_t longest_;
    bool at_end_ = false;
    bool failed_ = false;
    int reads_ = 0;
    off_t file_offset_ = 0;   // of the first byte that is not read yet
    off_t piece_offset_ = 0;  // of the last piece
    std::size_t position_ = 0;
    std::size_t filled_ = 0;
    char buffer_[kBuffer];
};

}  // namespace Tessaly::mailsize

#endif
