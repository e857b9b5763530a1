/*
 * The library's locks, and the calls that are made while they are held; README.md says what is checked. Macros say who
 * runs, how often the service dies, how the peers behave and, for a control, which fault is put in: see run.
 * An atomic step works on what one held lock guards and has one effect besides at most: no thread can look between.
 */
#define NONE 255               /* no owner, no helper, no service, no camera */
#define HELPERS (COMMANDS + 1) /* helper 0 is there from the start, command c configures helper c */
#define DEFAULT_ID 4           /* what camera 0 opens as, until the application requires the other */
#define REQUIRED_ID 2
#define when(condition, steps) if :: condition -> steps :: else fi
#define maybe(steps) if :: true :: true -> steps fi
#define locked(m, steps) atomic { lock(m); steps; unlock(m) }
#define instead(fault, faulty, right) choose(fault, faulty, right) /* a fault is 1 where it is put in, else 0 */
#define choose(fault, faulty, right) choose##fault(faulty, right)
#define choose0(faulty, right) right
#define choose1(faulty, right) faulty

byte mSettingsLock = NONE, mServiceLock = NONE, gProxyLock = NONE, gStreamSizesLock = NONE; /* which thread holds it */
byte filtersLock = NONE, gVendorTagCallbackLock = NONE; /* filtersLock: MetadataHandler::mLock */
bool isDesktop[2], restartPending[2];      /* by camera; camera 0 is in desktop mode */
byte requiredOverrideId[2] = DEFAULT_ID, currentOverrideId[2] = NONE;
byte mLock[HELPERS] = NONE, references[HELPERS]; /* by helper */
bool mImgSubAppConnected[HELPERS], mImgSubProducer[HELPERS], isAlive[HELPERS];
byte mImgSubHelper = NONE;                 /* which helper */
byte mCameraDesktop = NONE;                /* the life of the service that the proxy leads to */
bool mAppProducer, isBuilt;                /* isBuilt: the first getInstance() has returned */
byte restartMessages, reconnections;       /* detached threads that were started and have not begun */

byte serviceLife;                          /* the service is in this life, */
bool isServiceUp = true;                   /* or down after it */
bool isRegistered[DEATHS + 1];             /* by its lives */
byte deathLinks, deathNotices;
bool mayCommand, isAnswered[COMMANDS + 1]; /* by command, which are threads 1 to COMMANDS; 0 stands for none */

byte working;                              /* threads that have not returned */
short hung;                                /* a bit for each thread that waits for a peer that never answers */

/* --- Locks. waitFor() where the holder may wait for a peer without limit, lock() where it must not. */
inline lock(m) { atomic { m == NONE -> m = _pid } }
inline unlock(m) { atomic { assert(m == _pid); m = NONE } }
inline tryLock(m, isLocked) { atomic { isLocked = m == NONE; when(isLocked, m = _pid) } }
inline hang() { atomic { hung = hung | 1 << _pid; goto parked } }
inline waitFor(m) { if :: atomic { m == NONE -> m = _pid } :: m != NONE && hung >> m & 1 -> hang() fi }
inline lockHelper(h) { atomic { assert(isAlive[h]); waitFor(mLock[h]) } }
inline unlockHelper(h) { atomic { assert(isAlive[h]); unlock(mLock[h]) } }

/* --- Calls to a peer, which come back at any time, since a peer that dies ends them too; or not before a command that
       the peer sends was answered. SILENT: a command may never come back. STOPPED: no call may. */
#define holdsLeaf (mSettingsLock == _pid || gProxyLock == _pid || gStreamSizesLock == _pid || filtersLock == _pid || \
                   gVendorTagCallbackLock == _pid)
#define mayAwait(c) (!STOPPED && mayCommand && c <= COMMANDS && !isAnswered[c] && (_pid > COMMANDS || _pid < c))
inline call() {
    atomic {
        assert(!holdsLeaf);
        if
        :: after = 0
        :: mayAwait(1) -> after = 1
        :: mayAwait(2) -> after = 2
        :: STOPPED -> hang()
        fi;
        isAnswered[after] -> after = 0
    }
}
inline sendCommand() { if :: SILENT -> hang() :: call() fi }

/* --- The link to the service. With its lock, the local service is what mCameraDesktop is. */
inline setServiceProxy(proxy) { locked(gProxyLock, mCameraDesktop = proxy) }
inline serviceProxy() { locked(gProxyLock, service = mCameraDesktop) }
inline lockLink() { atomic { waitFor(mServiceLock); service = mCameraDesktop } }
inline linkToDeath() { if :: isServiceUp && service == serviceLife -> deathLinks++ :: else -> deathNotices++ fi }
inline connectToServiceLocked() {
    when(service == NONE,
        service = (isServiceUp -> serviceLife : NONE); /* tryGetService */
        atomic { assert(mCameraDesktop == NONE); setServiceProxy(service) };
        when(service != NONE,              /* registerCallback, which lets commands in */
            atomic { assert(!isRegistered[service]); isRegistered[service] = true; mayCommand = true };
            call();
            atomic { linkToDeath() }))
}
inline setCommandTo() {
    lockLink(); connectToServiceLocked(); atomic { when(service != NONE, sendCommand()); unlock(mServiceLock) }
}
inline getSurface() {
    lockLink(); connectToServiceLocked(); atomic { when(service != NONE, call()); unlock(mServiceLock) }
}
inline handleDeathNotification() {
    waitFor(mServiceLock); setServiceProxy(NONE); atomic { reconnections++; unlock(mServiceLock) }
}
inline reconnectToService() {              /* one of its three attempts */
    when(service == NONE,
        instead(CONNECT_WITHOUT_LINK, service = mCameraDesktop; connectToServiceLocked(),
            lockLink(); connectToServiceLocked(); unlock(mServiceLock)))
}

/* --- Image substitution. A reference is a std::shared_ptr; each operation on the member is atomic. */
inline setImgSubAppConnected(h) {
    assert(isAlive[h]);
    instead(CONNECTED_TAKES_HELPER_LOCK, lock(mLock[h]); unlock(mLock[h]), skip);
    mImgSubAppConnected[h] = false
}
inline disconnectImgSubProducer_locked(h) { when(mImgSubProducer[h], call(); mImgSubProducer[h] = false) }
inline drop(h) {
    atomic {
        assert(references[h] > 0); references[h]--; isLast = references[h] == 0;
        when(isLast, assert(isAlive[h] && mLock[h] == NONE); isAlive[h] = false)
    }
}
inline release(h) { drop(h); when(isLast, disconnectImgSubProducer_locked(h)) }
inline loadImgSubHelper() { atomic { current = mImgSubHelper; when(current != NONE, references[current]++) } }
inline replaceImgSubHelper(next) {
    instead(TAKE_OUT_IN_TWO_STEPS, old = mImgSubHelper; mImgSubHelper = next,
        atomic { old = mImgSubHelper; mImgSubHelper = next });
    when(old != NONE, setImgSubAppConnected(old); release(old))
}
inline setImgSubSurface() { serviceProxy(); when(service != NONE, call()) }
inline handleImgSubStreamConfig(created) {
    instead(CONFIGURE_TAKES_LINK, lock(mServiceLock), skip);
    replaceImgSubHelper(NONE); setImgSubSurface();
    if
    :: true                                /* the format or the reader is refused */
    :: setImgSubSurface();
        instead(BUILD_BY_GET_INSTANCE, isBuilt, skip);
        d_step { isAlive[created] = true; mImgSubAppConnected[created] = true; references[created] = 2 };
        replaceImgSubHelper(created); release(created) /* one of the references becomes the member's */
    fi;
    instead(CONFIGURE_TAKES_LINK, unlock(mServiceLock), skip)
}
inline ImgSubNodeDisconnect() {
    atomic { waitFor(mServiceLock); loadImgSubHelper() };
    if
    :: current == NONE -> setImgSubSurface()
    :: current != NONE && references[current] != 2 -> release(current)
    :: current != NONE && references[current] == 2 ->
        atomic {                           /* compare and exchange, which loads the member when it is another */
            old = mImgSubHelper; when(old == current, mImgSubHelper = NONE; references[old]--);
            when(old != current && old != NONE, references[old]++)
        };
        if
        :: old == current -> setImgSubAppConnected(current); release(current); setImgSubSurface()
        :: else -> release(current);       /* the other one could not get its producer without the link */
            when(old != NONE, drop(old); assert(!(isLast && mImgSubProducer[old])))
        fi
    fi;
    unlock(mServiceLock)
}
inline connectImgSubProducer_locked(h) {
    getSurface();
    if
    :: true                                /* no surface, or the reader's own */
    :: mImgSubAppConnected[h] -> call(); hasQueue = true; mImgSubProducer[h] = true
    fi
}
inline imgSubGetOutputFrameToFill(h) {
    atomic { lockHelper(h); isUsed = mImgSubAppConnected[h]; hasQueue = mImgSubProducer[h] };
    when(isUsed && !hasQueue, connectImgSubProducer_locked(h));
    when(isUsed && hasQueue, call());      /* dequeueBuffer; when it fails, disconnect */
    atomic { if :: true :: isUsed -> disconnectImgSubProducer_locked(h) fi; unlockHelper(h) }
}
inline imgSubQueueOutputFrame(h) {         /* and cancelImgSubFrames */
    atomic { lockHelper(h); isUsed = mImgSubAppConnected[h] && mImgSubProducer[h] };
    atomic { when(isUsed, call()); unlockHelper(h) }
}
inline imgSubAcquireFrame(h) {             /* with one pause, which leaves it where it was */
    atomic { lockHelper(h); unlockHelper(h) }; atomic { lockHelper(h); unlockHelper(h) }
}

/* --- The registry of cameras */
inline getOriginalCameraId() { locked(mSettingsLock, skip) } /* and every query */
inline handleCameraOpenEvent(value) { locked(mSettingsLock, isDesktop[0] = value) } /* and handleCameraClosedEvent */
inline needsCameraIdSwitch(id) {
    locked(mSettingsLock, when(requiredOverrideId[id] != currentOverrideId[id], restartPending[id] = true))
}
inline updateCameraIdOnHalOpen(id) {
    locked(mSettingsLock,
        when(restartPending[id], restartMessages++); currentOverrideId[id] = requiredOverrideId[id])
}
inline setRequiredOverrideId(id) {
    locked(mSettingsLock,
        when(requiredOverrideId[id] != REQUIRED_ID && currentOverrideId[id] == DEFAULT_ID, restartMessages++);
        requiredOverrideId[id] = REQUIRED_ID)
}
inline onHalClose(id) {
    locked(mSettingsLock,
        found = (isDesktop[id] -> mImgSubHelper : NONE);
        instead(DECIDE_AFTER_WAIT,
            unlock(mSettingsLock); lock(mServiceLock); unlock(mServiceLock); lock(mSettingsLock), skip);
        wasDesktop = isDesktop[id];
        currentOverrideId[id] = NONE; requiredOverrideId[id] = DEFAULT_ID; restartPending[id] = false;
        instead(WAIT_UNDER_SETTINGS_LOCK, lock(mServiceLock); hasLink = true, tryLock(mServiceLock, hasLink));
        instead(CALL_UNDER_SETTINGS_LOCK, when(wasDesktop, setImgSubSurface()), skip));
    when(wasDesktop, replaceImgSubHelper(NONE); when(old != NONE, setImgSubSurface()));
    atomic { when(hasLink, unlock(mServiceLock)); assert(found == NONE || mImgSubHelper != found) }
}

/* --- Capture metadata and the application's frames */
inline findVendorTag() { locked(gVendorTagCallbackLock, skip) } /* and setVendorTagCallback */
inline resolveTagId() { locked(filtersLock, findVendorTag()) }  /* and setTagsOfInterest */
inline convertFromMetadata() { locked(filtersLock, skip) }
inline lookUpStreamSize() { locked(gStreamSizesLock, skip) }
inline handleCaptureMetadata() {
    getOriginalCameraId(); convertFromMetadata(); lookUpStreamSize(); setCommandTo(); resolveTagId()
}
inline connectProducer() {
    lockLink(); connectToServiceLocked();
    when(service != NONE && !mAppProducer, call(); maybe(call(); mAppProducer = true));
    unlock(mServiceLock)
}
inline getFrameToFill() { when(mAppProducer, call(); maybe(call(); mAppProducer = false)) } /* dequeues, disconnects */

/* --- Threads. Each comes to its end, so one that waits for ever is an invalid end state. One that waits for a peer
       that never answers is parked, which open, close and commands may be only for peers that have stopped. */
#define LOCALS byte after, service = NONE, old = NONE, current = NONE; bool isLast, isUsed, hasQueue
proctype hal(byte id) {
    LOCALS; byte found; bool hasLink, wasDesktop;
    if
    :: id == 0 && MESSAGES -> updateCameraIdOnHalOpen(id); needsCameraIdSwitch(id); updateCameraIdOnHalOpen(id)
    :: id == 1 -> getOriginalCameraId()
    :: else
    fi;
    onHalClose(id); working--; goto done;
parked: assert(STOPPED && wasDesktop && old != NONE);
done: skip
}
proctype binder() {                        /* handleCommand */
    LOCALS; bool isConfiguration;
end: mayCommand;
    if
    :: true -> getOriginalCameraId()
    :: MESSAGES -> setRequiredOverrideId(0)
    :: true -> handleCameraOpenEvent(true)
    :: true -> handleCameraOpenEvent(false)
    :: CAPTURES -> resolveTagId()
    :: isConfiguration = true; handleImgSubStreamConfig(_pid)
    fi;
    atomic { isAnswered[_pid] = true; working-- }; goto done;
parked: assert(STOPPED && isConfiguration);
done: skip
}
proctype stream() {
    LOCALS;
    loadImgSubHelper();
    when(current != NONE,
        instead(HAL_WITHOUT_REFERENCE, references[current]--, skip);
        imgSubGetOutputFrameToFill(current); imgSubQueueOutputFrame(current); imgSubAcquireFrame(current);
        instead(HAL_WITHOUT_REFERENCE, skip, release(current)));
    working--;
parked: skip
}
proctype capture() { LOCALS; handleCaptureMetadata(); working--; parked: skip }
proctype frames() { LOCALS; connectProducer(); getFrameToFill(); connectProducer(); working--; parked: skip }
proctype node() { LOCALS; ImgSubNodeDisconnect(); working--; parked: skip }
proctype constructor() { LOCALS; connectToServiceLocked(); setImgSubSurface(); isBuilt = true; working--; parked: skip }
proctype restartMessage() {
    LOCALS; end: atomic { restartMessages > 0 -> restartMessages-- }; setCommandTo(); parked: skip
}
proctype reconnection() {
    LOCALS; end: atomic { reconnections > 0 -> reconnections-- };
    reconnectToService(); reconnectToService(); reconnectToService();
parked: skip
}
proctype serviceDied() {
    LOCALS;
end: do :: atomic { deathNotices > 0 -> deathNotices-- }; handleDeathNotification() od;
parked: skip
}
proctype desktopService() {
    do
    :: break
    :: serviceLife < DEATHS -> d_step { isServiceUp = false; deathNotices = deathNotices + deathLinks; deathLinks = 0 };
        if :: break :: d_step { serviceLife++; isServiceUp = true } fi
    od
}
init {
    byte h;
    atomic {
        isAnswered[0] = true;
        working = HALS + CAPTURES + STREAMS + FRAMES + NODES + COMMANDS + BIRTHS;
        when(!BIRTHS,                      /* a substitution is configured */
            isBuilt = true; isDesktop[0] = true;
            mImgSubHelper = 0; isAlive[0] = true; references[0] = 1; mImgSubAppConnected[0] = true;
            if
            :: mCameraDesktop = 0; isRegistered[0] = true; deathLinks = 1; mayCommand = true
            :: DEATHS > 0                  /* the service was not found yet */
            fi);
        when(COMMANDS > 0, run binder()); when(COMMANDS > 1, run binder());
        when(DEATHS, run desktopService(); run serviceDied(); run reconnection()); when(DEATHS > 1, run reconnection());
        when(MESSAGES > 0, run restartMessage()); when(MESSAGES > 1, run restartMessage());
        when(BIRTHS, run constructor());
        isBuilt;                           /* whoever calls getInstance() meanwhile waits */
        when(HALS > 0, run hal(0)); when(HALS > 1, run hal(1));
        when(STREAMS > 0, run stream()); when(STREAMS > 1, run stream());
        when(CAPTURES, run capture()); when(FRAMES, run frames()); when(NODES, run node())
    }
end: working == 0;
    for (h : 0 .. COMMANDS) {              /* the one that is configured is all that is left */
        assert(references[h] == (h == mImgSubHelper) && isAlive[h] == references[h]);
        assert(mImgSubAppConnected[h] == isAlive[h])
    }
}
