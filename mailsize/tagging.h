// Giving messages their size field.
#ifndef TSMAIL_MAILSIZE_TAGGING_H
#define TSMAIL_MAILSIZE_TAGGING_H

namespace Tessaly::mailsize {

// Gives every entry of the directory that has no size field a name with one. An entry of a cur
// directory goes by way of ../tmp under its old name, so that a reader of cur never finds it under
// both names. An entry that cannot be renamed keeps its name and place. No other file is replaced.
void tag_entries(int dir, bool is_cur);

}  // namespace Tessaly::mailsize

#endif
