#include <vesk/FileAccess.h>

#include <tarncommon/Export.h>

#include <sys/stat.h>

namespace vesk {

static_assert(S_IRUSR == 0400 && S_IWUSR == 0200 && S_IXUSR == 0100 && S_IRWXU == 0700);
static_assert(S_IRGRP == 040 && S_IWGRP == 020 && S_IXGRP == 010 && S_IRWXG == 070);
static_assert(S_IROTH == 04 && S_IWOTH == 02 && S_IXOTH == 01 && S_IRWXO == 07);
static_assert(S_ISUID == 04000 && S_ISGID == 02000 && S_ISVTX == 01000);

TARN_CONSTANT_INIT FileAccess const FileAccess::none(0);
TARN_CONSTANT_INIT FileAccess const FileAccess::owner_read(0400);
TARN_CONSTANT_INIT FileAccess const FileAccess::owner_write(0200);
TARN_CONSTANT_INIT FileAccess const FileAccess::owner_exec(0100);
TARN_CONSTANT_INIT FileAccess const FileAccess::owner_all(0700);
TARN_CONSTANT_INIT FileAccess const FileAccess::group_read(040);
TARN_CONSTANT_INIT FileAccess const FileAccess::group_write(020);
TARN_CONSTANT_INIT FileAccess const FileAccess::group_exec(010);
TARN_CONSTANT_INIT FileAccess const FileAccess::group_all(070);
TARN_CONSTANT_INIT FileAccess const FileAccess::others_read(04);
TARN_CONSTANT_INIT FileAccess const FileAccess::others_write(02);
TARN_CONSTANT_INIT FileAccess const FileAccess::others_exec(01);
TARN_CONSTANT_INIT FileAccess const FileAccess::others_all(07);
TARN_CONSTANT_INIT FileAccess const FileAccess::all(0777);
TARN_CONSTANT_INIT FileAccess const FileAccess::set_uid(04000);
TARN_CONSTANT_INIT FileAccess const FileAccess::set_gid(02000);
TARN_CONSTANT_INIT FileAccess const FileAccess::sticky_bit(01000);
TARN_CONSTANT_INIT FileAccess const FileAccess::mask(07777);

} // namespace vesk
