/* Prints the size of a folder, by its messages' names and by its cache, and removes a message. */
#include <stdio.h>
#include <tessaly/mailstore.h>

static int make_message(const char* path) {
    FILE* file = fopen(path, "w");
    if (file == NULL) return -1;
    fputs("hello, world", file);
    return fclose(file);
}

int main(void) {
    const char* folder = "/tmp/folder";
    const char* message = "/tmp/folder/new/1.2_3_4.host#Q#5,#F#S#12#E";
    if (tsl_mkdir_maildir(folder) != 0 || make_message(message) != 0) return 73;

    printf("the name says %lld\n", get_maildir_msg_len_from_name(message));
    printf("new holds %lld\n", tsl_get_dir_size(folder, "new", 0));
    printf("the folder holds %lld\n", tsl_get_mailbox_size_actual(folder, NULL, 0));
    printf("its cache says %lld\n", tsl_get_mailbox_size(folder, NULL));

    if (tsl_maildir_unlink_mail(message) != 0) {
        perror(message);
        return 74;
    }
    return tsl_get_dir_size(folder, "new", 0) == 0 ? 0 : 1;
}
