package com.example.shop;

/** Customers' payments that are refused, deep in the shop. */
final class FailedPayments {
  private static final int CUSTOMERS = 20;

  private FailedPayments() {}

  /** Serves some customers who cannot pay, one after the other. */
  static void serve() {
    String refusal = "";
    for (int customer = 0; customer < CUSTOMERS; customer++) {
      refusal = serve(customer);
    }
    System.out.printf("  %s: %d times %s%n", Thread.currentThread().getName(), CUSTOMERS, refusal);
  }

  private static String serve(int customer) {
    RequestContext.CURRENT.set(new RequestContext(4711 + customer, "/checkout"));
    Order order = new Order(customer, new int[] {0, 2, 1}, 12_990);
    try {
      return new Checkout("EUR").pay(order, new Card("A. Customer", "4000 0000 0000 0002", 2031));
    } catch (PaymentRefused e) {
      return e.getMessage();
    } finally {
      RequestContext.CURRENT.remove();
    }
  }

  /** What the thread is working on. */
  private static final class RequestContext {
    static final ThreadLocal<RequestContext> CURRENT = new ThreadLocal<>();

    final int request;
    final String path;

    RequestContext(int request, String path) {
      this.request = request;
      this.path = path;
    }
  }

  private static final class Card {
    final String holder;
    final String number;
    final int expires;

    Card(String holder, String number, int expires) {
      this.holder = holder;
      this.number = number;
      this.expires = expires;
    }
  }

  private static final class Checkout {
    private final PaymentGateway gateway = new PaymentGateway("payments.example.com");
    private final String currency;

    Checkout(String currency) {
      this.currency = currency;
    }

    String pay(Order order, Card payment) {
      double amount = order.cents / 100.0;
      String reference = "order of customer " + order.customer;
      String receipt = gateway.charge(payment, amount, currency, reference);
      return reference + ": " + receipt;
    }
  }

  private static final class PaymentGateway {
    private static final double LIMIT = 100;

    private final String host;
    private int attempts;

    PaymentGateway(String host) {
      this.host = host;
    }

    String charge(Card payment, double amount, String currency, String reference) {
      attempts++;
      boolean withinLimit = amount <= LIMIT;
      if (!withinLimit) {
        throw new PaymentRefused(host + " refuses " + amount + " " + currency);
      }
      return payment.number + " paid for " + reference;
    }
  }

  private static final class PaymentRefused extends RuntimeException {
    private static final long serialVersionUID = 1;

    PaymentRefused(String message) {
      super(message);
    }
  }
}
