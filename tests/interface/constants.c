/* The enumerators are interface, but the functions of the library do not have their types: callers
 * pass them as int. These functions have the types, so that the recorded interface of this library
 * contains the enumerators. */
#include <tessaly/maillist.h>
#include <tessaly/mailstore.h>
#include <tessaly/userpref.h>

#define SHOWN __attribute__((visibility("default")))

SHOWN void interface_file_kind(enum MailUserFileKind kind);
SHOWN void interface_name_flag(enum tsl_name_flag flag);
SHOWN void interface_name_result(enum tsl_name_result result);
SHOWN void interface_scan_flag(enum tsl_scan_flag flag);
SHOWN void interface_list_scope(enum mail_list_scope scope);
SHOWN void interface_preference_type(enum pref_type type);
SHOWN void interface_convertors(pref_text_to_field read, pref_field_to_text write);

void interface_file_kind(enum MailUserFileKind kind) { (void)kind; }
void interface_name_flag(enum tsl_name_flag flag) { (void)flag; }
void interface_name_result(enum tsl_name_result result) { (void)result; }
void interface_scan_flag(enum tsl_scan_flag flag) { (void)flag; }
void interface_list_scope(enum mail_list_scope scope) { (void)scope; }
void interface_preference_type(enum pref_type type) { (void)type; }
void interface_convertors(pref_text_to_field read, pref_field_to_text write) {
    (void)read;
    (void)write;
}
