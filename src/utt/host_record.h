// Records that a host passes in, of this version's size or another one's.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <stdexcept>

namespace zorv {

/// Where a member begins and ends in its record.
struct MemberSpan {
    std::size_t begin;
    std::size_t end;
};

#define ZORV_MEMBER(Record, member)                                                 \
    ::zorv::MemberSpan {                                                            \
        offsetof(Record, member), offsetof(Record, member) + sizeof(Record::member) \
    }

/// A copy of what the host's record holds; members beyond its end are zero. `Record` begins with
/// struct_size.
template <class Record>
class HostRecord {
  public:
    /// Throws when struct_size is 0 or ends inside one of the members.
    HostRecord(Record& host, std::initializer_list<MemberSpan> members) : host_(host) {
        const std::size_t size = host.struct_size;
        for (const MemberSpan& member : members) {
            if (size == 0 || (member.begin < size && size < member.end)) {
                throw std::invalid_argument("struct_size ends inside a member");
            }
        }
        bytes_ = std::min(size, sizeof(Record));
        std::memcpy(&value, &host, bytes_);
    }

    /// Writes the copy back, as far as the host's record reaches.
    void giveBack() { std::memcpy(&host_, &value, bytes_); }

    Record value{};

  private:
    Record& host_;
    std::size_t bytes_ = 0;
};

}  // namespace zorv
