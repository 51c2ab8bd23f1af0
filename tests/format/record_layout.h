/*
 * Checks of a record's layout against a list written by hand: its fields in order, each with its size, and
 * where it matters its offset, as literal numbers.
 */
#ifndef RECORD_LAYOUT_H
#define RECORD_LAYOUT_H

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>

namespace layout {

constexpr size_t pointer = sizeof(void *);
constexpr size_t any_offset = ~size_t(0);

struct Field {
    const char *name;
    size_t offset, size, alignment; /* as compiled */
    size_t listed_size, listed_offset;
};

/* Alignment of a type as a member: on 32-bit x86 that of a 64-bit word is 4, not what alignof says. */
template <typename T> struct Member {
    char before;
    T member;
};
template <typename T> constexpr size_t member_alignment() { return offsetof(Member<T>, member); }

inline size_t round_up(size_t n, size_t to) { return (n + to - 1) / to * to; }

/* The fields stand in the listed order with the listed sizes, the first at 0 and none besides them between. */
inline void expect_fields_in_order(const char *record, std::initializer_list<Field> fields)
{
    size_t end = 0;
    for (const Field &f : fields) {
        EXPECT_EQ(f.listed_size, f.size) << record << "." << f.name;
        EXPECT_EQ(round_up(end, f.alignment), f.offset)
            << record << "." << f.name << " does not follow the field before";
        end = f.offset + f.size;
    }
}

/* The same, and nothing stands behind the last field. */
inline void expect_whole_record(const char *record, size_t size, size_t alignment, std::initializer_list<Field> fields)
{
    expect_fields_in_order(record, fields);
    const Field &last = *(fields.end() - 1);
    EXPECT_EQ(round_up(last.offset + last.size, alignment), size) << record << " has fields behind " << last.name;
}

/* A format shared with others: every offset is given. */
inline void expect_offsets(const char *record, size_t size, size_t listed_size, std::initializer_list<Field> fields)
{
    for (const Field &f : fields) {
        EXPECT_EQ(f.listed_offset, f.offset) << record << "." << f.name;
        EXPECT_EQ(f.listed_size, f.size) << record << "." << f.name;
    }
    EXPECT_EQ(listed_size, size) << record;
}

/* A record made from literal bytes, whose number must be the record's size. */
template <typename T, size_t N> T from_bytes(const uint8_t (&bytes)[N])
{
    static_assert(sizeof(T) == N, "the literal bytes are not of the record's size");
    T record;
    std::memcpy(&record, bytes, N);
    return record;
}

/* The record's bytes equal the literal ones. */
template <typename T, size_t N> void expect_bytes(const T &record, const uint8_t (&bytes)[N])
{
    static_assert(sizeof(T) == N, "the literal bytes are not of the record's size");
    const uint8_t *have = reinterpret_cast<const uint8_t *>(&record);
    for (size_t i = 0; i < N; ++i)
        EXPECT_EQ(unsigned(bytes[i]), unsigned(have[i])) << "byte " << i;
}

/* Big-endian words, taken apart here so that the swaps under test are not trusted. */
inline uint32_t big_endian(const void *field, size_t bytes)
{
    const uint8_t *b = static_cast<const uint8_t *>(field);
    uint32_t v = 0;
    for (size_t i = 0; i < bytes; ++i)
        v = v << 8 | b[i];
    return v;
}

} // namespace layout

/* For use in a function with `using R = record;`. */
#define LAYOUT_FIELD(field, size)                                                                                      \
    layout::Field                                                                                                      \
    {                                                                                                                  \
#field, offsetof(R, field), sizeof(R::field), layout::member_alignment < decltype(R::field)>(), size,          \
            layout::any_offset                                                                                         \
    }
#define LAYOUT_AT(offset, size, field)                                                                                 \
    layout::Field                                                                                                      \
    {                                                                                                                  \
#field, offsetof(R, field), sizeof(R::field), layout::member_alignment < decltype(R::field)>(), size, offset   \
    }

#endif
