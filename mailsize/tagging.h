// Giving messages their size field.
#ifndef TSMAIL_MAILSIZE_TAGGING_H
#define TSMAIL_MAILSIZE_TAGGING_H

namespace Tessaly::mailsize {

// Renames every entry of the directory that has no size field to its name with one. In a cur
// directory it goes by way of ../tmp under its old name, so that a reader of cur never finds it
// under both names. What cannot be renamed keeps its name and place, no other file is replaced.
void tag_entries(int dir, bool is_cur);

}  // namespace Tessaly::mailsize

#endif
