#include "app/TSPlugList.h"

#include <algorithm>

void TSPlugList::addObject(const TSPlugPtr& plug) { addObjects({plug}); }

void TSPlugList::addObjects(const std::vector<TSPlugPtr>& plugs) {
    std::vector<TSPlugPtr> added;
    for (const TSPlugPtr& plug : plugs)
        if (plug) {
            plugs_.push_back(plug);
            added.push_back(plug);
        }
    if (added.empty())
        return;
    emit plugsAdded(added);
    emit contentChanged();
}

void TSPlugList::removeObjects(const std::vector<TSPlugPtr>& plugs) {
    if (plugs.empty())
        return;
    const std::vector<TSPlugPtr> selected = selectedObjects();
    const auto doomed = [&](const TSPlugPtr& p) {
        return std::find(plugs.begin(), plugs.end(), p) != plugs.end();
    };
    std::vector<TSPlugPtr> removed;
    for (const TSPlugPtr& p : plugs_)
        if (doomed(p))
            removed.push_back(p);
    if (removed.empty())
        return;
    plugs_.erase(std::remove_if(plugs_.begin(), plugs_.end(), doomed), plugs_.end());
    const std::set<size_t> oldSelection = selection_;
    selection_.clear();
    for (size_t i = 0; i < plugs_.size(); ++i)
        if (std::find(selected.begin(), selected.end(), plugs_[i]) != selected.end())
            selection_.insert(i);
    emit plugsRemoved(removed);
    emit contentChanged();
    if (selection_ != oldSelection)
        emit selectionChanged();
}

void TSPlugList::removeAllObjects() { removeObjects(std::vector<TSPlugPtr>(plugs_)); }

std::vector<TSPlugPtr> TSPlugList::selectedObjects() const {
    std::vector<TSPlugPtr> selected;
    for (size_t i : selection_)
        selected.push_back(plugs_[i]);
    return selected;
}

TSPlugPtr TSPlugList::firstSelectedObject() const {
    return selection_.empty() ? nullptr : plugs_[*selection_.begin()];
}

void TSPlugList::setSelectionIndexes(const std::set<size_t>& indexes) {
    std::set<size_t> valid;
    for (size_t i : indexes)
        if (i < plugs_.size())
            valid.insert(i);
    if (valid == selection_)
        return;
    selection_ = std::move(valid);
    emit selectionChanged();
}

void TSPlugList::setSelectedObjects(const std::vector<TSPlugPtr>& plugs) {
    std::set<size_t> indexes;
    for (size_t i = 0; i < plugs_.size(); ++i)
        if (std::find(plugs.begin(), plugs.end(), plugs_[i]) != plugs.end())
            indexes.insert(i);
    setSelectionIndexes(indexes);
}
