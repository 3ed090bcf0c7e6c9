#pragma once

/// While it lives, one call of `new (std::nothrow)` gets no memory: the @p nth from now on, 1 = the next.
class FailingNew {
public:
    explicit FailingNew(int nth);
    ~FailingNew();
    FailingNew(const FailingNew&) = delete;
    FailingNew& operator=(const FailingNew&) = delete;
};
