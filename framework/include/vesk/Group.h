#pragma once

#include <vesk/Export.h>

#include <string>

namespace vesk {

/// A group of the system, identified by its id or its name. The other of the two is looked up on demand.
///
///     vesk::Group const group(std::string("audio"));
///     long long const id = group.getId();                    // Group::BAD_ID if there is no such group.
///     std::string const name = vesk::Group::id2name(0);      // "root"
///
/// The system's name service determines the existing groups, from files or over the network depending on its
/// configuration. A lookup may block as long as that takes, and it allocates. Nothing is reported: a lookup
/// that fails for any reason gives the same result as a missing group. The static operations may be called
/// from any thread. An object belongs to one thread at a time, including its const operations, because they
/// cache what they have looked up.
class VESK_API Group {
public:
    /// The invalid id.
    VESK_API_INLINE static constexpr long long BAD_ID = -1;

    /// The invalid name, empty.
    static std::string const BAD_NAME;

    /// Constructs the group with this id, without looking up its name.
    explicit Group(long long group_id) : id(group_id), name(BAD_NAME), id_known(true), name_known(false) {}

    /// Constructs the group with this name, without looking up its id.
    explicit Group(std::string const& group_name)
        : id(BAD_ID), name(group_name), id_known(false), name_known(true) {}

    /// Returns the id, or `BAD_ID` if no group has this name. The first call looks an unknown id up with
    /// `name2id`. The result is cached, also if there is no such group.
    long long getId() const;

    /// Returns the name, or `BAD_NAME` if no group has this id. The first call looks an unknown name up with
    /// `id2name`. The result is cached, also if there is no such group. Throws `std::bad_alloc` if there is
    /// no memory for the name.
    std::string const& getName() const;

    /// Returns whether `getId` needs no lookup.
    bool isIdKnown() const noexcept { return id_known; }

    /// Returns whether `getName` needs no lookup.
    bool isNameKnown() const noexcept { return name_known; }

    /// Returns the id if it is known, else `BAD_ID`. Makes no lookup.
    long long getKnownId() const noexcept { return id; }

    /// Returns the name if it is known, else `BAD_NAME`. Makes no lookup.
    std::string const& getKnownName() const noexcept { return name; }

    /// Returns the name of a group (`getgrgid_r`), or the empty `BAD_NAME` if there is no such group or no
    /// memory for the lookup. Throws `std::bad_alloc` if there is no memory for the result.
    /// @param id  a value outside the range of `gid_t` names no group
    static std::string id2name(long long id);

    /// Returns the id of a group (`getgrnam_r`), or `BAD_ID` if there is no such group or no memory for the
    /// lookup.
    static long long name2id(std::string const& name);

private:
    // Mutable because the const accessors cache their lookups here.
    mutable long long id;
    mutable std::string name;
    mutable bool id_known;
    mutable bool name_known;
};

} // namespace vesk
