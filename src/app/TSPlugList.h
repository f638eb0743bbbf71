#pragma once
// The user's plugs in display order with the current selection: what the
// window's list controller shows and edits. Main thread only: every change
// arrives from the window, the learn modes (marshalled) or a restore.

#include "signals/TSPlug.h"

#include <QObject>
#include <set>
#include <vector>

class TSPlugList : public QObject {
    Q_OBJECT

public:
    const std::vector<TSPlugPtr>& arrangedObjects() const { return plugs_; }
    size_t count() const { return plugs_.size(); }

    void addObject(const TSPlugPtr& plug);
    void addObjects(const std::vector<TSPlugPtr>& plugs);
    void removeObjects(const std::vector<TSPlugPtr>& plugs);
    void removeAllObjects();

    std::vector<TSPlugPtr> selectedObjects() const;
    TSPlugPtr firstSelectedObject() const;
    const std::set<size_t>& selectionIndexes() const { return selection_; }
    void setSelectionIndexes(const std::set<size_t>& indexes);
    void setSelectedObjects(const std::vector<TSPlugPtr>& plugs);

signals:
    // Just before contentChanged: which plugs came and went.
    void plugsAdded(const std::vector<TSPlugPtr>& plugs);
    void plugsRemoved(const std::vector<TSPlugPtr>& plugs);
    // After plugs were added or removed; the list is as it now stands.
    void contentChanged();
    void selectionChanged();

private:
    std::vector<TSPlugPtr> plugs_;
    std::set<size_t> selection_;
};
