/* The link between a host and a controller, message by message: the driver, the care of the host kit, a line with a
 * bounded number of faults, and the controller's link layer. docs/assurance.md says what is left out. Parameters are
 * given with -D by tools/model/model.py.
 *
 * The lines that printf() writes are read by tools/model/model.py, which makes fault scripts of them. */

#ifndef CARE /* 1: a host that does what the host kit does; 0: one that hands every frame to the driver */
#define CARE 1
#endif
/* Parts of the care, each of which can be left out alone. */
#ifndef CHECK_NUMBER /* compare transaction number, command and service of a reply */
#define CHECK_NUMBER CARE
#endif
#ifndef CHECK_STATUS /* a refusal is not stored; "no such connection" gives the connection up */
#define CHECK_STATUS CARE
#endif
#ifndef ASK_AGAIN /* refuse a corrupt reply, ask for a missing one, repeat a refused request */
#define ASK_AGAIN CARE
#endif
#ifndef AVOID_OPEN /* a number whose reply may still come is not used again */
#define AVOID_OPEN CARE
#endif
#ifndef OWN_NUMBERS /* a read that is repeated, and the start of a set-up, get another number */
#define OWN_NUMBERS CARE
#endif
#ifndef KEEP_UNANSWERED /* a write that went out without an answer is not queued again */
#define KEEP_UNANSWERED CARE
#endif
#ifndef QUEUE_AGAIN /* a write that the driver drops with its connection is queued again or reported */
#define QUEUE_AGAIN CARE
#endif
#ifndef KEEP_WRITE_NUMBER /* the repetition of a write has the number of the first time */
#define KEEP_WRITE_NUMBER 1
#endif

#ifndef CLAIMS
#define CLAIMS 0
#endif
#define OWN_VALUE 1     /* a value that is stored is one of the tag that was asked for */
#define DONE_IS_DONE 2  /* a write that is reported done was executed */
#define ONCE 4          /* no write is executed twice */
#define NONE_VANISHES 8 /* no write is dropped without a report */
#define UNDONE_IS_UNDONE 16 /* a write that is reported as not executed was not, and will not be */
#define STAYS_CONNECTED 32  /* no connection is given up */
#define NO_FOREIGN_VALUE 64 /* a value of a tag is not stored for another one */

#ifndef FAULTS
#define FAULTS 2
#endif
#ifndef KINDS
#define KINDS 159
#endif
#define LOSE 1
#define DAMAGE 2
#define DOUBLE 4        /* of replies */
#define DELAY 8         /* the message and all behind it arrive later */
#define LOSE_CONTROL 16 /* a DLE ACK or DLE NAK of the host's own, or a DLE NAK of the controller */
#define OVERTAKE 32     /* a reply arrives after later ones */
#define OVERTAKE_REQUEST 64
#define DOUBLE_REQUEST 128
#ifndef POWER_CYCLES
#define POWER_CYCLES 1
#endif
#ifndef DOWNLOADS
#define DOWNLOADS 0
#endif
#ifndef WRITES
#define WRITES 1
#endif
#ifndef DUPLICATE_DETECTION
#define DUPLICATE_DETECTION 1
#endif
#ifndef RETRY_LIMIT
#define RETRY_LIMIT 1
#endif
#ifndef MODULUS /* of the driver's transaction counter: 65536 in truth */
#define MODULUS 4
#endif
#ifndef OWN /* so many numbers of the host's own: 57344 in truth, drawn at random */
#define OWN 6
#endif
#ifndef ENQUIRIES /* how often a controller asks for an acknowledgement: 3 in truth */
#define ENQUIRIES 1
#endif
#ifndef NAKS /* how often a controller repeats a refused reply, and how often a host refuses: 3 in truth */
#define NAKS 2
#endif
#ifndef LATEST /* a delayed message arrives at the latest when so many wait */
#define LATEST 3
#endif
#ifndef OVERTAKEN /* an overtaken message arrives before the so many-th later one */
#define OVERTAKEN 3
#endif
#ifndef PROMPT /* 1: the controller answers before the host looks, as the simulated one does on virtual time */
#define PROMPT 0
#endif
#ifndef START /* the driver's first transaction number */
#define START 0
#endif

#define ROOM 8
#define A 1
#define B 2
#define claim(bit, condition) assert(!(CLAIMS & bit) || (condition))
#define bitOf(n) (1 << (n))

mtype = { Nothing, Identity, Open, Read, Write, Bad, Ack, Nak, Enq };
mtype = { Good, Refused, NoConnection };

/* kind, number, connection, tag or write, with a DLE ACK before it */
chan requests = [ROOM] of { mtype, byte, byte, byte, bit };
/* kind, number, tag or write or connection, status */
chan replies = [ROOM] of { mtype, byte, byte, mtype };
bit requestsDelayed, repliesDelayed;
byte faults = FAULTS;

/* An overtaken message of each side. */
mtype heldRequest = Nothing; byte heldRequestNumber, heldRequestConnection, heldRequestWhat, heldRequestAge;
mtype heldReply = Nothing, heldReplyStatus = Good; byte heldReplyNumber, heldReplyWhat, heldReplyAge;

byte executed[3]; /* how often, by write */
byte untold[3];   /* 1: the write was reported as not executed */
bit fresh;        /* changes with each good value that is stored */
bit existsB = 1;  /* tag B is part of the controller's program */

#define strikes(kind) (faults > 0 && (KINDS & kind))
#define quiet ((empty(requests) || requestsDelayed) && (empty(replies) || repliesDelayed) && \
               len(requests) <= LATEST && len(replies) <= LATEST)

inline sendRequest(kind, number, conn, what, ack)
{
	printf("REQUEST %e %d %d\n", kind, number, what);
	if
	:: heldRequest != Nothing ->
		requests!heldRequest, heldRequestNumber, heldRequestConnection, heldRequestWhat, 0;
		printf("RELEASE request\n");
		heldRequest = Nothing; heldRequestNumber = 0; heldRequestConnection = 0; heldRequestWhat = 0;
		heldRequestAge = 0
	:: heldRequest != Nothing && heldRequestAge + 1 < OVERTAKEN -> heldRequestAge++
	:: heldRequest == Nothing
	fi;
	if
	:: requests!kind, number, conn, what, ack
	:: strikes(LOSE) -> faults--; printf("FAULT request lose\n");
		if
		:: ack -> requests!Ack, 0, 0, 0, 1
		:: else
		fi
	:: strikes(LOSE) -> faults--; printf("FAULT request lose-all\n")
	:: strikes(DAMAGE) -> faults--; printf("FAULT request damage\n"); requests!Bad, 0, 0, 0, ack
	:: strikes(DOUBLE_REQUEST) -> faults--; printf("FAULT request double\n");
		requests!kind, number, conn, what, ack; requests!kind, number, conn, what, ack
	:: strikes(DELAY) && !requestsDelayed -> faults--; printf("FAULT request delay\n");
		requestsDelayed = 1; requests!kind, number, conn, what, ack
	:: strikes(OVERTAKE_REQUEST) && heldRequest == Nothing -> faults--; printf("FAULT request overtake\n");
		heldRequest = kind; heldRequestNumber = number; heldRequestConnection = conn; heldRequestWhat = what
	fi
}

inline sendControl(control)
{
	printf("CONTROL %e\n", control);
	if
	:: requests!control, 0, 0, 0, 0
	:: strikes(LOSE_CONTROL) -> faults--; printf("FAULT control lose\n")
	fi
}

inline sendReply(kind, number, what, status)
{
	printf("REPLY %e %d %d %e\n", kind, number, what, status);
	if
	:: heldReply != Nothing ->
		replies!heldReply, heldReplyNumber, heldReplyWhat, heldReplyStatus;
		printf("RELEASE reply\n");
		heldReply = Nothing; heldReplyNumber = 0; heldReplyWhat = 0; heldReplyStatus = Good; heldReplyAge = 0
	:: heldReply != Nothing && heldReplyAge + 1 < OVERTAKEN -> heldReplyAge++
	:: heldReply == Nothing
	fi;
	if
	:: replies!kind, number, what, status
	:: strikes(LOSE) -> faults--; printf("FAULT reply lose\n")
	:: strikes(DAMAGE) -> faults--; printf("FAULT reply damage\n"); replies!Bad, 0, 0, Good
	:: strikes(DOUBLE) -> faults--; printf("FAULT reply double\n");
		replies!kind, number, what, status; replies!kind, number, what, status
	:: strikes(DELAY) && !repliesDelayed -> faults--; printf("FAULT reply delay\n");
		repliesDelayed = 1; replies!kind, number, what, status
	:: strikes(OVERTAKE) && heldReply == Nothing -> faults--; printf("FAULT reply overtake\n");
		heldReply = kind; heldReplyNumber = number; heldReplyWhat = what; heldReplyStatus = status
	fi
}

/* What was delayed arrives. */
active proctype Line()
{
end:	do
	:: atomic { requestsDelayed -> requestsDelayed = 0; printf("ARRIVED request\n") }
	:: atomic { repliesDelayed -> repliesDelayed = 0; printf("ARRIVED reply\n") }
	od
}

active proctype Controller()
{
	byte powerCycles = POWER_CYCLES, downloads = DOWNLOADS;
	byte opened;     /* a bit for each open connection, 1 to 3 */
	byte lastOpened; /* 0 to 3 */
	byte lastNumber = 255; bit lastConnected; /* of the message before */
	mtype awaited = Nothing, awaitedStatus = Good; byte awaitedNumber, awaitedWhat;
	byte naks, enquiries;
	chan waiting = [2] of { mtype, byte, byte, mtype };
	mtype kind, status; byte number, conn, what; bit ack;

end:	do
	:: atomic {
		!requestsDelayed && nempty(requests) ->
		requests?kind, number, conn, what, ack;
		if
		:: ack || kind == Ack -> goto acknowledged
		:: else
		fi;
message:	if
		:: kind == Ack
		:: kind == Bad -> goto refuse
		:: kind == Nak && awaited != Nothing ->
			naks++;
			if
			:: naks > NAKS -> kind = Ack; goto acknowledged
			:: else -> sendReply(awaited, awaitedNumber, awaitedWhat, awaitedStatus)
			fi
		:: kind == Nak && awaited == Nothing
		:: kind == Identity || kind == Open || kind == Read || kind == Write ->
			if
			:: len(waiting) == 2 -> goto refuse
			:: DUPLICATE_DETECTION && number == lastNumber && lastConnected == (kind == Read || kind == Write)
			:: else -> lastNumber = number; lastConnected = (kind == Read || kind == Write); goto execute
			fi
		fi;
		goto done;
refuse:		printf("REFUSED\n");
		if
		:: replies!Nak, 0, 0, Good
		:: strikes(LOSE_CONTROL) -> faults--; printf("FAULT control lose\n")
		fi;
		goto done;
execute:	status = Good;
		if
		:: kind == Identity -> what = 0
		:: kind == Open ->
			lastOpened = lastOpened % 3 + 1;
			opened = opened | bitOf(lastOpened);
			what = lastOpened
		:: (kind == Read || kind == Write) && !(opened & bitOf(conn)) -> status = NoConnection
		:: kind == Read && (opened & bitOf(conn)) -> status = ((what == B && !existsB) -> Refused : Good)
		:: kind == Write && (opened & bitOf(conn)) ->
			executed[what]++;
			printf("EXECUTED %d\n", what);
			claim(ONCE, executed[what] <= 1);
			claim(UNDONE_IS_UNDONE, !untold[what])
		fi;
		if
		:: awaited != Nothing -> waiting!kind, number, what, status
		:: else ->
			awaited = kind; awaitedNumber = number; awaitedWhat = what; awaitedStatus = status;
			sendReply(kind, number, what, status)
		fi;
		goto done;
acknowledged:	naks = 0; enquiries = 0;
		awaited = Nothing; awaitedNumber = 0; awaitedWhat = 0; awaitedStatus = Good;
		if
		:: nempty(waiting) ->
			waiting?awaited, awaitedNumber, awaitedWhat, awaitedStatus;
			sendReply(awaited, awaitedNumber, awaitedWhat, awaitedStatus)
		:: empty(waiting)
		fi;
		goto message;
done:		kind = Nothing; status = Good; number = 0; conn = 0; what = 0; ack = 0
	   }
	:: atomic {
		awaited != Nothing && quiet && enquiries < ENQUIRIES ->
		enquiries++; printf("ENQUIRY\n"); replies!Enq, 0, 0, Good
	   }
	:: atomic {
		powerCycles > 0 ->
		powerCycles--; printf("POWER-CYCLE\n");
		opened = 0; lastNumber = 255; lastConnected = 0;
		awaited = Nothing; awaitedNumber = 0; awaitedWhat = 0; awaitedStatus = Good;
		naks = 0; enquiries = 0;
		do
		:: nempty(waiting) -> waiting?kind, number, what, status
		:: empty(waiting) -> break
		od;
		kind = Nothing; status = Good; number = 0; what = 0
	   }
	:: atomic { downloads > 0 -> downloads--; existsB = !existsB; printf("DOWNLOAD %d\n", existsB) }
	od
}

#define nextOf(n) ((n) == MODULUS - 1 -> 1 : (n) + 1)
#define isData (queued == Read || queued == Write)
#define isRepeatable (queued == Read || queued == Identity)

/* Host kit and driver are one thread. */
active proctype Host()
{
	/* The driver. `queued` is the frame at the head of its queue. */
	mtype queued = Nothing; byte queuedNumber, queuedWhat;
	bit isConnected; byte connection; byte counter = START;
	byte failures, opens; byte tag = A;
	bit spoilt; /* the driver takes no reply to this frame any more, after a time-out */
	/* The user's write. */
	byte writes, pending; bit unanswered;
	/* The request in flight, and what is known of the one before: sets of numbers are sets of bits. */
	byte number; bit isRepeated, disturbed; byte questions, naksLeft, resends, owed; int others;
	byte lastNumber = 255, lastOwed; bit lastAnswered = 1; int lastOthers, openNumbers;
	mtype lastQueued = Nothing; byte lastQueuedNumber, lastWhat, lastConnection;
	byte own;
	mtype kind, status; byte got, what; bit withAck; byte sent;

	atomic {
		true;
next:		if
		:: writes < WRITES && pending == 0 ->
			writes++; pending = writes; unanswered = 0; printf("ASKED %d\n", pending)
		:: true
		fi;
		if
		:: queued == Nothing && !isConnected -> queued = Identity; queuedNumber = counter; queuedWhat = 0
		:: queued == Nothing && isConnected && pending != 0 ->
			queued = Write; queuedNumber = counter; queuedWhat = pending
		:: queued == Nothing && isConnected && pending == 0 ->
			queued = Read; queuedNumber = counter; queuedWhat = tag
		:: queued != Nothing
		fi;

		/* Exchange::begin() and number() */
		isRepeated = !lastAnswered && lastQueued == queued && lastQueuedNumber == queuedNumber &&
			lastWhat == queuedWhat && lastConnection == connection;
		number = queuedNumber; withAck = 1; disturbed = 0; questions = 0; naksLeft = NAKS; resends = 0;
		owed = 0; others = 0; sent = 1;
		if
		:: CARE && isRepeated && !isRepeatable && KEEP_WRITE_NUMBER ->
			number = lastNumber; withAck = 0; disturbed = 1
		:: CARE && !(isRepeated && !isRepeatable && KEEP_WRITE_NUMBER) &&
		   ((OWN_NUMBERS && (isRepeated || queued == Identity)) ||
		    (AVOID_OPEN && (queuedNumber == lastNumber || (lastOthers & bitOf(queuedNumber)) ||
		                    (openNumbers & bitOf(queuedNumber))))) ->
			own = (own + 1) % OWN; number = MODULUS + own
		:: else
		fi;
		if
		:: (!CARE || lastOwed == 0) && !repliesDelayed ->
			do
			:: nempty(replies) -> replies?kind, got, what, status
			:: empty(replies) -> break
			od
		:: else
		fi;
		sendRequest(queued, number, connection, queuedWhat, withAck);
		kind = Nothing; status = Good; got = 0; what = 0
	}

	do
	:: atomic {
		!repliesDelayed && nempty(replies) && (!PROMPT || empty(requests) || requestsDelayed) ->
		replies?kind, got, what, status;
		if
		:: !CARE && (kind == Nak || kind == Enq)
		:: !CARE && kind != Nak && kind != Enq -> goto bare
		:: CARE && (kind == Bad || kind == Enq) -> disturbed = (kind == Bad -> 1 : disturbed); goto askAgain
		:: CARE && kind == Nak ->
			disturbed = 1;
			if
			:: (lastOthers != 0 && !isRepeatable) || resends >= NAKS || !ASK_AGAIN
			:: else -> resends++; sent++; sendRequest(queued, number, connection, queuedWhat, withAck)
			fi
		:: CARE && kind != Bad && kind != Enq && kind != Nak ->
			if
			:: !CHECK_NUMBER -> goto answered
			:: CHECK_NUMBER && kind == queued && got == number -> goto answered
			:: CHECK_NUMBER && kind == queued && got != number && (others & bitOf(got)) ->
				others = (others & ~bitOf(got)) | bitOf(number); number = got; disturbed = 1;
				goto answered
			:: else -> goto stray
			fi
		fi;
		goto wait;
askAgain:	if
		:: ASK_AGAIN && naksLeft > 0 -> naksLeft--; sendControl(Nak)
		:: else
		fi;
		goto wait;
stray:		disturbed = 1;
		if
		:: got == lastNumber || (lastOthers & bitOf(got)) ->
			lastAnswered = 1;
			if
			:: lastOwed > 0 -> lastOwed--;
				if
				:: questions == 0 -> goto wait
				:: else
				fi
			:: else
			fi
		:: else
		fi;
		owed = (owed > 0 -> owed - 1 : 0);
		sendControl(Ack);
wait:		kind = Nothing; status = Good; got = 0; what = 0
	   }
	:: atomic {
		/* Nothing comes: the host asks twice, then the time is up. */
		quiet ->
		if
		:: ASK_AGAIN && questions == 0 ->
			questions = 1; naksLeft--; owed++; sendControl(Nak)
		:: ASK_AGAIN && questions == 1 ->
			questions = 2;
			if
			:: isRepeatable && OWN_NUMBERS ->
				own = (own + 1) % OWN; others = others | bitOf(number); number = MODULUS + own;
				owed++; sent++; sendRequest(queued, number, connection, queuedWhat, withAck)
			:: else ->
				if
				:: naksLeft > 0 -> naksLeft--; owed++; sendControl(Nak)
				:: else
				fi
			fi
		:: else -> printf("TIME-OUT\n"); kind = Nothing; goto silent
		fi
	   }
	od;

	atomic {
		true;
		/* A host without care: the next frame is the reply, also a damaged one. */
bare:		if
		:: !isData -> goto setUp
		:: isData && kind == Bad -> goto again /* one look at an incomplete reply, of twelve */
		:: isData && kind != Bad && spoilt -> goto failed
		:: else -> goto complete
		fi;

answered:	lastAnswered = 1; goto remember;
silent:		lastAnswered = 0;
remember:	/* What is still open of the requests before. */
		if
		:: !CARE || (lastAnswered && !disturbed) -> openNumbers = 0
		:: else ->
			openNumbers = openNumbers | lastOthers;
			if
			:: lastNumber != 255 -> openNumbers = openNumbers | bitOf(lastNumber)
			:: else
			fi
		fi;
		lastNumber = number; lastOthers = others; lastOwed = owed;
		lastQueued = queued; lastQueuedNumber = queuedNumber; lastWhat = queuedWhat; lastConnection = connection;
		unanswered = (queued == Write && (!lastAnswered || sent > 1) -> 1 : unanswered);
		if
		:: !isData -> goto setUp
		:: isData && !lastAnswered -> goto failed
		:: isData && lastAnswered && CHECK_STATUS && status == NoConnection -> goto dropped
		:: else -> goto complete
		fi;

setUp:		/* The driver looks at each reply of a set-up, and takes each that ends as a frame. */
		counter = nextOf(counter);
		if
		:: kind != Nothing && queued == Identity -> queued = Open; queuedNumber = counter; opens = 0
		:: kind != Nothing && queued == Open ->
			connection = (kind == Open -> what : 0);
			isConnected = 1; queued = Nothing
		:: kind == Nothing && queued == Open && opens < 3 -> opens++; queuedNumber = counter
		:: kind == Nothing && (queued == Identity || opens == 3) -> queued = Nothing; opens = 0
		fi;
		goto again;

complete:	/* The driver takes the reply as that of its request. */
		counter = nextOf(counter);
		if
		:: queued == Read && (!CHECK_STATUS || status == Good) ->
			printf("STORED %d %e %d %e\n", queuedWhat, kind, what, status);
			claim(OWN_VALUE, kind == Read && status == Good && what == queuedWhat);
			claim(NO_FOREIGN_VALUE, kind != Read || status != Good || what == queuedWhat);
			fresh = (kind == Read && status == Good && what == queuedWhat -> !fresh : fresh)
		:: queued == Read && CHECK_STATUS && status != Good
		:: queued == Write && (!CHECK_STATUS || status == Good) ->
			printf("DONE %d\n", pending);
			claim(DONE_IS_DONE, executed[pending] >= 1);
			pending = 0
		:: queued == Write && CHECK_STATUS && status != Good -> printf("REFUSED-WRITE %d\n", pending); pending = 0
		fi;
		tag = (queued == Read -> 3 - tag : tag);
		queued = Nothing; spoilt = 0;
		goto again;

failed:		failures++; spoilt = 1;
		if
		:: failures <= RETRY_LIMIT -> goto again
		:: else
		fi;
dropped:	/* The driver gives the connection up, and with it all writes. It reports the one in flight. */
		printf("DROPPED\n");
		claim(STAYS_CONNECTED, false);
		failures = 0; spoilt = 0; isConnected = 0; connection = 0;
		if
		:: queued == Write && QUEUE_AGAIN && status == NoConnection && !(unanswered && KEEP_UNANSWERED)
		:: queued == Write && !(QUEUE_AGAIN && status == NoConnection && !(unanswered && KEEP_UNANSWERED)) ->
			printf("FAILED %d %d\n", pending, unanswered);
			claim(UNDONE_IS_UNDONE, !CARE || unanswered || executed[pending] == 0);
			untold[pending] = (CARE && !unanswered -> 1 : 0);
			pending = 0
		:: queued == Read && (pending == 0 || QUEUE_AGAIN)
		:: queued == Read && pending != 0 && !QUEUE_AGAIN ->
			printf("VANISHED %d\n", pending);
			claim(NONE_VANISHES, false);
			pending = 0
		fi;
		tag = (queued == Read -> 3 - tag : tag);
		queued = Nothing;
again:		kind = Nothing; status = Good; got = 0; what = 0;
		goto next
	}
}

ltl resumes { ([]<> fresh) && ([]<> !fresh) }
