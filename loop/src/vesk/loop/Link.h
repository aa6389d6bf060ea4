#pragma once

namespace vesk::loop::detail {

/// An element of a ring, alone at first. A list is a ring with a `Link` of its own, its end.
class Link {
public:
    Link() noexcept = default;
    Link(Link const&) = delete;
    Link& operator=(Link const&) = delete;

    bool isAlone() const noexcept { return m_next == this; }
    Link* getNext() const noexcept { return m_next; }

    /// Puts an element that is alone before this one: at the back, if this is the end of a list.
    void insert(Link& element) noexcept {
        element.m_previous = m_previous;
        element.m_next = this;
        m_previous->m_next = &element;
        m_previous = &element;
    }

    /// Moves all elements of another list to the back of this one.
    void takeAll(Link& other) noexcept {
        while (!other.isAlone()) {
            Link& first = *other.m_next;
            first.remove();
            insert(first);
        }
    }

    /// Removes this element from its ring. Does nothing if it is alone.
    void remove() noexcept {
        m_previous->m_next = m_next;
        m_next->m_previous = m_previous;
        m_previous = m_next = this;
    }

private:
    Link* m_previous = this;
    Link* m_next = this;
};

} // namespace vesk::loop::detail
