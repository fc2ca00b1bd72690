// The persistent log archive: numbered archive directories per category under
// /mnt/vendor/zq_log/, their rotation and compression, and the file primitives beneath them.
#pragma once

#include <cstdint>
#include <string>

// Files the staged panic evidence into a new numbered archive of the panic category.
void copy_to_zq_log();

// Copies the staged panic folder named by "vendor.zq_dump.last_dump" into this run's archive
// directory of category |type|.
void copy_panic_log(uint32_t type);

// Makes category |type|'s directory exist, rotates its archives and creates this run's archive
// directory. 0 on success, -22 for an invalid |type|, -1 otherwise.
int prepare_type_log_and_dir(unsigned int type);

// Names and creates this run's archive directory of category |type|. 0 on success, -22 for an
// invalid |type|, otherwise the result of zq_create_dir_str.
int create_type_new_zq_log_dir(unsigned int type);

// Compresses this run's archive directory of category |type|; removes it unless it is a panic.
void clean_type_log_and_dir(unsigned int type);

// The count in archive name |file_name| (prefix, count, "_", time), or -1 when it does not parse.
// An empty or out-of-range count throws.
long long get_boot_count_by_file_name(std::string file_name);

// One more than the largest count among the archives in |log_dir| named with |prefix|; 0 if none.
int get_new_zq_log_count(std::string log_dir, std::string prefix);

// Removes from |log_dir| everything but the archives with counts above
// |new_log_count| - |max_log_num| and dot-files, and compresses surviving archive directories.
// 0 when every entry was dealt with, 1 when a removal failed and the walk stopped.
int remove_old_and_trash_file(long long new_log_count, std::string log_dir, std::string prefix,
                              int max_log_num);

// Compresses |dir| into |dir|.tar.gz beside it and removes |dir| when |remove_dir|. Always 0.
int tar_and_delete_dir(std::string dir, bool remove_dir);

// Sets mode 0770 on |path| when it exists.
void chang_to_zq_log_mod(std::string path);

// Creates |path| with its parents and gives it mode 0770; 0 when it exists now, 1 otherwise.
int zq_create_dir_str(std::string path);

// Removes |path|, a file or a whole tree; 0 when it is gone, -1 when removal failed.
int ZQRemoveFile(std::string path);
