// The intrusive list of subr2: nodes live inside their owners; markers are owner-less nodes.
#include "adminlib/subr2.h"

namespace {

void linkBetween(ListHdr* hdr, ListNode* node, ListNode* prev, ListNode* next) {
  node->hdr = hdr;
  node->prev = prev;
  node->next = next;
  if (prev)
    prev->next = node;
  else
    hdr->first = node;
  if (next)
    next->prev = node;
  else
    hdr->last = node;
}

void unlink(ListNode* node) {
  ListHdr* hdr = node->hdr;
  if (node->prev)
    node->prev->next = node->next;
  else
    hdr->first = node->next;
  if (node->next)
    node->next->prev = node->prev;
  else
    hdr->last = node->prev;
  node->next = node->prev = nullptr;
  node->hdr = nullptr;
}

void checkInsertable(const ListNode* node) {
  QM_ASSERT(node->owner != nullptr);
  QM_ASSERT(node->hdr == nullptr);
}

ListNode* firstReal(ListNode* from) {
  while (from && !from->owner) from = from->next;
  return from;
}

ListNode* lastReal(ListNode* from) {
  while (from && !from->owner) from = from->prev;
  return from;
}

}  // namespace

void InitHdr(ListHdr* hdr) {
  hdr->first = hdr->last = nullptr;
  hdr->markersInUse = 0;
  for (ListNode& m : hdr->markers) m = ListNode{nullptr, nullptr, nullptr, nullptr};
}

void FpInitHdr(ListHdr* hdr) { InitHdr(hdr); }

void InitNode(ListNode* node, void* owner) { *node = ListNode{nullptr, nullptr, nullptr, owner}; }

void AppendNode(ListHdr* hdr, ListNode* node) {
  checkInsertable(node);
  linkBetween(hdr, node, hdr->last, nullptr);
}

void InsertFirstNode(ListHdr* hdr, ListNode* node) {
  checkInsertable(node);
  linkBetween(hdr, node, nullptr, hdr->first);
}

void InsertAfterNode(ListNode* after, ListNode* node) {
  checkInsertable(node);
  QM_ASSERT(after->hdr != nullptr);
  linkBetween(after->hdr, node, after, after->next);
}

void InsertBeforeNode(ListNode* before, ListNode* node) {
  checkInsertable(node);
  QM_ASSERT(before->hdr != nullptr);
  linkBetween(before->hdr, node, before->prev, before);
}

void RemoveNode(ListNode* node) {
  QM_ASSERT(node->hdr != nullptr);
  unlink(node);
}

void* RemoveFirstNode(ListHdr* hdr) {
  ListNode* n = firstReal(hdr->first);
  if (!n) return nullptr;
  unlink(n);
  return n->owner;
}

void MoveList(ListHdr* dst, ListHdr* src) {
  ListNode* n = src->first;
  while (n) {
    ListNode* next = n->next;
    if (n->owner) {
      unlink(n);
      linkBetween(dst, n, dst->last, nullptr);
    }
    n = next;
  }
}

void* FpFirstNode(ListHdr* hdr) {
  ListNode* n = firstReal(hdr->first);
  return n ? n->owner : nullptr;
}

void* FpLastNode(ListHdr* hdr) {
  ListNode* n = lastReal(hdr->last);
  return n ? n->owner : nullptr;
}

int FpSetMarker(ListHdr* hdr) {
  if (!firstReal(hdr->first)) return -1;
  int pair = -1;
  for (int p = 0; p < kListMarkerPairs; ++p) {
    if (!(hdr->markersInUse & (1u << p))) {
      pair = p;
      break;
    }
  }
  // Four walks at once over one list is more than any owner does.
  QM_ASSERT(pair >= 0);
  hdr->markersInUse |= 1u << pair;
  ListNode* start = &hdr->markers[2 * pair];
  ListNode* end = &hdr->markers[2 * pair + 1];
  *start = ListNode{nullptr, nullptr, nullptr, nullptr};
  *end = ListNode{nullptr, nullptr, nullptr, nullptr};
  linkBetween(hdr, start, nullptr, hdr->first);
  linkBetween(hdr, end, hdr->last, nullptr);
  return pair;
}

void* FpIterate(ListHdr* hdr, int pair) {
  if (pair < 0 || pair >= kListMarkerPairs || !(hdr->markersInUse & (1u << pair))) return nullptr;
  ListNode* start = &hdr->markers[2 * pair];
  ListNode* end = &hdr->markers[2 * pair + 1];
  for (ListNode* n = start->next; n && n != end; n = n->next) {
    if (!n->owner) continue;
    unlink(start);
    linkBetween(hdr, start, n, n->next);
    return n->owner;
  }
  return nullptr;
}

void FpClearMarker(ListHdr* hdr, int pair) {
  if (pair < 0 || pair >= kListMarkerPairs || !(hdr->markersInUse & (1u << pair))) return;
  for (int i = 0; i < 2; ++i) {
    ListNode* m = &hdr->markers[2 * pair + i];
    if (m->hdr) unlink(m);
  }
  hdr->markersInUse &= ~(1u << pair);
}
