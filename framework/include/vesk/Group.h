#pragma once

#include <vesk/Export.h>

#include <string>

namespace vesk {

/// A group of the system, known by id or by name: the other half is looked up when it is asked for.
///
///     vesk::Group const group(std::string("audio"));
///     long long const id = group.getId();                    // Group::BAD_ID if there is no such group.
///     std::string const name = vesk::Group::id2name(0);      // "root"
///
/// Which groups there are is told by the system's name service, files or the network by its configuration: a look-up may
/// block as long as that takes, and it allocates. Nothing is reported: a look-up that fails, whatever the reason, has
/// found nothing. The static operations may be called from any thread. An object belongs to one thread at a time, its
/// const operations included, since they keep what they have looked up.
class VESK_API Group {
public:
    /// The id of no group.
    VESK_API_INLINE static constexpr long long BAD_ID = -1;

    /// The name of no group, empty.
    static std::string const BAD_NAME;

    /// The group with this id, whose name is not looked up yet.
    explicit Group(long long group_id) : id(group_id), name(BAD_NAME), id_known(true), name_known(false) {}

    /// The group with this name, whose id is not looked up yet.
    explicit Group(std::string const& group_name)
        : id(BAD_ID), name(group_name), id_known(false), name_known(true) {}

    /// The id, looked up with `name2id` by the first call if it is not known; `BAD_ID` if the name has none. From then
    /// on it is known, also if there was none.
    long long getId() const;

    /// The name, looked up with `id2name` by the first call if it is not known; `BAD_NAME` if the id has none. From
    /// then on it is known, also if there was none. Throws `std::bad_alloc` if there is no memory for it.
    std::string const& getName() const;

    /// Whether `getId` answers without a look-up.
    bool isIdKnown() const noexcept { return id_known; }

    /// Whether `getName` answers without a look-up.
    bool isNameKnown() const noexcept { return name_known; }

    /// The id as far as it is known, `BAD_ID` otherwise. Makes no look-up.
    long long getKnownId() const noexcept { return id; }

    /// The name as far as it is known, `BAD_NAME` otherwise. Makes no look-up.
    std::string const& getKnownName() const noexcept { return name; }

    /// The name of a group (`getgrgid_r`), empty as `BAD_NAME` is if there is none, or if there is no memory for the look-up.
    /// Throws `std::bad_alloc` if there is no memory for the result.
    /// @param id  an id that the system's type for it cannot hold is nobody's
    static std::string id2name(long long id);

    /// The id of a group (`getgrnam_r`), `BAD_ID` if there is none, or if there is no memory for the look-up.
    static long long name2id(std::string const& name);

private:
    // Either half may be filled first; filling the other one is no change that a caller can tell.
    mutable long long id;
    mutable std::string name;
    mutable bool id_known;
    mutable bool name_known;
};

} // namespace vesk
